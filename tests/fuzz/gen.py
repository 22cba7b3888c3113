"""Random valid ONNX graphs over the operators the reduction rules rewrite.

A case grows from one to three graph inputs: each step picks a pattern (a
Transpose pair, a neutral Add, a channels-last region, a full-range Gather...)
and applies it to tensors made so far, preferring recent ones so that chains
form, but reading older ones often enough that tensors get several readers.
Shapes are tracked while growing so every attribute and constant fits; what
the tracking gets wrong is caught by strict shape inference, the checker and
an onnxruntime run, and the attempt is regenerated.

``make_case(seed)`` returns the model; ``generate(seed)`` also returns the
inputs, the reference outputs and how many attempts were thrown away.
"""

from __future__ import annotations

import math
from collections import Counter
from dataclasses import dataclass, field
from typing import Callable, Dict, List, Optional, Sequence, Tuple

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

OPSET = 17
IR_VERSION = 8
FLOAT, INT64, BOOL, DOUBLE, FLOAT16, INT32 = (
    TensorProto.FLOAT,
    TensorProto.INT64,
    TensorProto.BOOL,
    TensorProto.DOUBLE,
    TensorProto.FLOAT16,
    TensorProto.INT32,
)
MAX_ELEMS = 1024
MAX_RANK = 6
INT64_MAX = 2**63 - 1
INT64_MIN = -(2**63)
MAX_ATTEMPTS = 50

Shape = Tuple[int, ...]


class Skip(Exception):
    """The chosen pattern does not fit the operand; try another one."""


def prod(shape: Sequence[int]) -> int:
    return int(math.prod(shape))


def broadcast(*shapes: Sequence[int]) -> Optional[Shape]:
    rank = max(len(s) for s in shapes)
    out = []
    for i in range(rank):
        dims = {s[len(s) - rank + i] for s in shapes if len(s) - rank + i >= 0}
        dims.discard(1)
        if len(dims) > 1:
            return None
        out.append(dims.pop() if dims else 1)
    return tuple(out)


def inverse_perm(perm: Sequence[int]) -> List[int]:
    inv = [0] * len(perm)
    for i, p in enumerate(perm):
        inv[p] = i
    return inv


class Builder:
    """Grows one graph; ``pool`` holds the tensors later steps may read."""

    def __init__(self, rng: np.random.Generator):
        self.rng = rng
        self.nodes: List[onnx.NodeProto] = []
        self.inits: List[onnx.TensorProto] = []
        self.inputs: List[str] = []
        self.info: Dict[str, Tuple[int, Shape]] = {}
        self.pool: List[str] = []
        self.side: List[str] = []  # secondary outputs (Dropout mask) that may become graph outputs
        self.bounded: set = set()  # tensors whose values lie in [-1, 1] or so (safe for Exp)
        self.const_nodes = self.p(0.15)  # exporters often write constants as Constant nodes
        self.count = 0

    # -- randomness -------------------------------------------------------
    def p(self, prob: float) -> bool:
        return bool(self.rng.random() < prob)

    def pick_one(self, items: Sequence):
        return items[int(self.rng.integers(len(items)))]

    def randint(self, lo: int, hi: int) -> int:
        """Uniform in [lo, hi]."""
        return int(self.rng.integers(lo, hi + 1))

    # -- tensors ----------------------------------------------------------
    def fresh(self, prefix: str) -> str:
        self.count += 1
        return f"{prefix}{self.count}"

    def elem(self, name: str) -> int:
        return self.info[name][0]

    def shape(self, name: str) -> Shape:
        return self.info[name][1]

    def add_input(self, elem: int, shape: Shape) -> str:
        name = f"in{len(self.inputs)}"
        self.inputs.append(name)
        self.info[name] = (elem, tuple(shape))
        self.pool.append(name)
        return name

    def const(self, arr, prefix: str = "c") -> str:
        arr = np.asarray(arr)
        name = self.fresh(prefix)
        tensor = numpy_helper.from_array(arr, name)
        if self.const_nodes:
            self.nodes.append(helper.make_node("Constant", [], [name], value=tensor))
        else:
            self.inits.append(tensor)
        self.info[name] = (helper.np_dtype_to_tensor_dtype(arr.dtype), tuple(arr.shape))
        return name

    def ints(self, values, prefix: str = "k") -> str:
        return self.const(np.asarray(values, dtype=np.int64), prefix)

    def node(self, op: str, ins: Sequence[str], outs: Sequence[Tuple[int, Sequence[int]]], pool=True, **attrs) -> List[str]:
        for _, s in outs:
            if s is None:
                raise Skip(f"{op}: shapes do not broadcast")
            if len(s) > MAX_RANK or prod(s) > MAX_ELEMS or 0 in s:
                raise Skip(op)
        names = [self.fresh("t") for _ in outs]
        self.nodes.append(helper.make_node(op, list(ins), names, **attrs))
        for n, (e, s) in zip(names, outs):
            self.info[n] = (e, tuple(int(d) for d in s))
            if pool and e in (FLOAT, INT64):
                self.pool.append(n)
        return names

    def node1(self, op: str, ins: Sequence[str], elem: int, shape: Sequence[int], **attrs) -> str:
        return self.node(op, ins, [(elem, shape)], **attrs)[0]

    def pick(self, pred: Callable[[str], bool] = lambda n: True, floats: bool = False) -> str:
        cands = [n for n in self.pool if pred(n) and (not floats or self.elem(n) == FLOAT)]
        if not cands:
            raise Skip("no operand")
        if self.p(0.6):
            return self.pick_one(cands[-3:])
        return self.pick_one(cands)

    def pick_float(self, min_rank: int = 0, max_rank: int = MAX_RANK, rank: Optional[int] = None) -> str:
        if rank is not None:
            min_rank = max_rank = rank
        return self.pick(lambda n: min_rank <= len(self.shape(n)) <= max_rank, floats=True)

    def pick_any(self, min_rank: int = 0) -> str:
        # floats dominate: most ops need them, and ints stay a side path
        if self.p(0.85):
            try:
                return self.pick(lambda n: len(self.shape(n)) >= min_rank, floats=True)
            except Skip:
                pass
        return self.pick(lambda n: len(self.shape(n)) >= min_rank)

    def values(self, elem: int, shape: Sequence[int], kind: str = "random") -> np.ndarray:
        shape = tuple(shape)
        if kind == "zeros":
            arr = np.zeros(shape)
        elif kind == "ones":
            arr = np.ones(shape)
        elif kind == "nonzero":
            arr = self.rng.uniform(0.5, 2.0, shape) * self.rng.choice([-1.0, 1.0], shape)
        elif elem == INT64:
            arr = self.rng.integers(-3, 4, shape)
        else:
            arr = self.rng.standard_normal(shape)
        dtype = np.int64 if elem == INT64 else np.float32
        return np.asarray(arr, dtype=dtype)

    def other_shape(self, s: Shape, larger: bool = True) -> Shape:
        """A shape that broadcasts with ``s``: scalar, a suffix, ``s`` with
        dims set to 1, or (when ``larger``) one that widens ``s``."""
        r = self.rng.random()
        if r < 0.15:
            return ()
        if r < 0.25:
            return (1,)
        if r < 0.45:
            return s
        if r < 0.65:
            k = self.randint(0, len(s))
            return tuple(1 if self.p(0.3) else d for d in s[k:])
        if r < 0.8 or not larger:
            return tuple(1 if self.p(0.4) else d for d in s)
        out = [self.randint(2, 3) if d == 1 and self.p(0.6) else d for d in s]
        out = [self.randint(1, 3) for _ in range(self.randint(0 if out != list(s) else 1, 2))] + out
        return tuple(out)


# -- patterns ---------------------------------------------------------------
# Each takes the builder and adds one or a few nodes; Skip means "does not fit".


def random_perm(b: Builder, r: int) -> List[int]:
    return [int(i) for i in b.rng.permutation(r)]


def ones_only_perm(b: Builder, s: Shape) -> List[int]:
    """A permutation that moves only size-1 dims (the data order is kept)."""
    r = len(s)
    ones = [i for i in range(r) if s[i] == 1]
    rest = [i for i in range(r) if s[i] != 1]
    slots = sorted(int(i) for i in b.rng.choice(r, size=len(ones), replace=False))
    b.rng.shuffle(ones)
    perm, it_one, it_rest = [], iter(ones), iter(rest)
    for i in range(r):
        perm.append(next(it_one) if i in slots else next(it_rest))
    return perm


def transpose(b: Builder, x: str, perm: Optional[List[int]]) -> str:
    s = b.shape(x)
    if perm is None:  # no attribute: the dims are reversed
        return b.node1("Transpose", [x], b.elem(x), s[::-1])
    return b.node1("Transpose", [x], b.elem(x), [s[p] for p in perm], perm=perm)


def choose_perm(b: Builder, s: Shape) -> Optional[List[int]]:
    r = len(s)
    u = b.rng.random()
    if u < 0.25 and 1 in s:
        return ones_only_perm(b, s)
    if u < 0.32:
        return list(range(r))
    if u < 0.36:
        return None
    return random_perm(b, r)


def pat_transpose(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    transpose(b, x, choose_perm(b, b.shape(x)))


def pat_transpose_pair(b: Builder) -> None:
    x = b.pick_any(min_rank=2)
    s = b.shape(x)
    p1 = choose_perm(b, s) or list(range(len(s)))[::-1]
    t = transpose(b, x, p1)
    u = b.rng.random()
    if u < 0.5:
        p2 = inverse_perm(p1)
    elif u < 0.65 and 1 in b.shape(t):
        p2 = ones_only_perm(b, b.shape(t))
    else:
        p2 = random_perm(b, len(s))
    t2 = transpose(b, t, p2)
    if b.p(0.25):
        transpose(b, t2 if b.p(0.7) else t, choose_perm(b, b.shape(t2)))
    if b.p(0.2):  # the middle tensor gets a second reader
        b.node1("Relu" if b.elem(t) == FLOAT else "Neg", [t], b.elem(t), b.shape(t))


def factor_shape(b: Builder, total: int) -> List[int]:
    """A random shape of ``total`` elements, rank 1..5."""
    primes, n, f = [], total, 2
    while n > 1:
        while n % f == 0:
            primes.append(f)
            n //= f
        f += 1
    rank = b.randint(1, 5)
    dims = [1] * rank
    for pr in primes:
        dims[b.randint(0, rank - 1)] *= pr
    return dims


def reshape_target(b: Builder, s: Shape, target: Sequence[int]) -> List[int]:
    """Writes ``target`` with some dims as 0 (copy) and one as -1."""
    out = list(target)
    for i in range(min(len(s), len(out))):
        if out[i] == s[i] and b.p(0.3):
            out[i] = 0
    free = [i for i in range(len(out)) if out[i] != 0]
    if free and b.p(0.4):
        out[b.pick_one(free)] = -1
    return out


def reshape(b: Builder, x: str, target: Sequence[int]) -> str:
    s = b.shape(x)
    written = reshape_target(b, s, target)
    attrs = {"allowzero": 0} if b.p(0.2) else {}
    return b.node1("Reshape", [x, b.ints(written, "shape")], b.elem(x), target, **attrs)


def pat_reshape(b: Builder) -> None:
    x = b.pick_any()
    s = b.shape(x)
    u = b.rng.random()
    if u < 0.25 and s:
        target = list(s)  # a Reshape that changes nothing
    elif u < 0.45 and s:
        target = [d for d in s if d != 1] or [1]
        if b.p(0.5):
            target.insert(b.randint(0, len(target)), 1)
    else:
        target = factor_shape(b, prod(s))
    y = reshape(b, x, target)
    u = b.rng.random()
    if u < 0.3 and s:
        reshape(b, y, list(s))  # and back
    elif u < 0.5:
        reshape(b, y, factor_shape(b, prod(s)))


def pat_squeeze_unsqueeze(b: Builder) -> None:
    x = b.pick_any()
    s = b.shape(x)
    if 1 in s and b.p(0.5):
        ones = [i for i, d in enumerate(s) if d == 1]
        if b.p(0.25):
            out = [d for d in s if d != 1]
            b.node1("Squeeze", [x], b.elem(x), out)
            return
        axes = sorted(int(a) for a in b.rng.choice(ones, size=b.randint(1, len(ones)), replace=False))
        out = [d for i, d in enumerate(s) if i not in axes]
        written = [a - len(s) if b.p(0.3) else a for a in axes]
        b.node1("Squeeze", [x, b.ints(written, "axes")], b.elem(x), out)
        return
    k = b.randint(1, 2)
    r = len(s) + k
    axes = sorted(int(a) for a in b.rng.choice(r, size=k, replace=False))
    out = list(s)
    for a in axes:
        out.insert(a, 1)
    written = [a - r if b.p(0.3) else a for a in axes]
    y = b.node1("Unsqueeze", [x, b.ints(written, "axes")], b.elem(x), out)
    if b.p(0.4):  # and straight back
        b.node1("Squeeze", [y, b.ints(axes, "axes")], b.elem(x), s)


def pat_flatten(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = b.shape(x)
    axis = b.randint(-len(s), len(s))
    a = axis + len(s) if axis < 0 else axis
    b.node1("Flatten", [x], b.elem(x), [prod(s[:a]), prod(s[a:])], axis=axis)


def pat_identity(b: Builder) -> None:
    x = b.pick_any()
    if b.elem(x) != FLOAT or b.p(0.4):
        b.node1("Identity", [x], b.elem(x), b.shape(x))
        return
    s = b.shape(x)
    ins = [x]
    if b.p(0.3):
        ins.append(b.const(np.float32(b.pick_one([0.0, 0.1, 0.5])), "ratio"))
        if b.p(0.3):
            ins.append(b.const(np.bool_(False), "train"))
    if b.p(0.15):
        y, mask = b.node("Dropout", ins, [(FLOAT, s), (BOOL, s)])
        b.side.append(mask)
    else:
        b.node1("Dropout", ins, FLOAT, s)


def elementwise_const(b: Builder, x: str, op: str, kind: str, const_first: bool, cshape: Shape) -> str:
    e = b.elem(x)
    c = b.const(b.values(e, cshape, kind))
    out = broadcast(b.shape(x), cshape)
    ins = [c, x] if const_first else [x, c]
    return b.node1(op, ins, e, out)


def pat_neutral(b: Builder) -> None:
    """x+0, x-0, x*1, x/1, with the constant on either side and shapes that
    may broadcast x to a larger shape."""
    x = b.pick_any()
    e = b.elem(x)
    ops = ["Add", "Sub", "Mul", "Div"] if e == FLOAT else ["Add", "Sub", "Mul"]
    op = b.pick_one(ops)
    kind = "zeros" if op in ("Add", "Sub") else "ones"
    const_first = b.p(0.5) if op in ("Add", "Mul") else b.p(0.1)
    if op == "Div" and const_first:
        raise Skip("1/x")
    elementwise_const(b, x, op, kind, const_first, b.other_shape(b.shape(x)))


def pat_const_binary(b: Builder) -> None:
    x = b.pick_any()
    e = b.elem(x)
    op = b.pick_one(["Add", "Sub", "Mul", "Div"] if e == FLOAT else ["Add", "Sub", "Mul"])
    kind = "nonzero" if op == "Div" else "random"
    const_first = b.p(0.4) and op != "Div"
    y = elementwise_const(b, x, op, kind, const_first, b.other_shape(b.shape(x)))
    if op == "Mul" and b.p(0.3):  # Mul then Add: a scale-and-shift
        elementwise_const(b, y, "Add", "random", b.p(0.5), b.other_shape(b.shape(y), larger=False))


def pat_binary(b: Builder) -> None:
    x = b.pick_any()
    e, s = b.elem(x), b.shape(x)
    partners = [n for n in b.pool if b.elem(n) == e and broadcast(s, b.shape(n)) is not None]
    y = x if b.p(0.15) or not partners else b.pick_one(partners)
    ops = ["Add", "Sub", "Mul", "Max", "Min"] if e == FLOAT else ["Add", "Sub", "Mul"]
    op = b.pick_one(ops)
    ins = [x, y] if b.p(0.5) else [y, x]
    out = broadcast(s, b.shape(y))
    b.node1(op, ins, e, out)


def pat_activation(b: Builder) -> None:
    x = b.pick_any()
    e, s = b.elem(x), b.shape(x)
    if e != FLOAT:
        b.node1(b.pick_one(["Neg", "Abs"]), [x], e, s)
        return
    op = b.pick_one(["Relu", "Relu", "Sigmoid", "Tanh", "LeakyRelu", "Neg", "Abs", "Floor", "Softmax"])
    attrs = {}
    if op == "LeakyRelu" and b.p(0.6):
        attrs["alpha"] = float(b.pick_one([0.01, 0.1, 0.2]))
    if op == "Softmax":
        if not s:
            raise Skip("softmax of a scalar")
        attrs["axis"] = b.randint(-len(s), len(s) - 1)
    y = b.node1(op, [x], e, s, **attrs)
    if op in ("Sigmoid", "Tanh"):
        b.bounded.add(y)
    if op == "Relu" and b.p(0.3):
        b.node1("Relu", [y], e, s)


def pat_clip(b: Builder) -> None:
    x = b.pick_float()
    s = b.shape(x)
    lo, hi = b.pick_one([(-65504.0, 65504.0), (-np.inf, np.inf), (0.0, 6.0), (-1.0, 1.0), (None, 6.0), (0.0, None), (None, None), (-65504.0, None), (-0.5, 0.5)])
    ins = [x, "" if lo is None else b.const(np.float32(lo), "lo")]
    if hi is not None:
        ins.append(b.const(np.float32(hi), "hi"))
    while ins[-1] == "" and len(ins) > 1:
        ins.pop()
    y = b.node1("Clip", ins, FLOAT, s)
    if lo is not None and hi is not None and hi - lo <= 2:
        b.bounded.add(y)


def pat_min_max(b: Builder) -> None:
    """Min and Max with constants: what a Clip looks like when written out."""
    x = b.pick_float()
    s = b.shape(x)
    first, second = ("Min", "Max") if b.p(0.5) else ("Max", "Min")
    hi, lo = b.pick_one([(6.0, 0.0), (1.0, -1.0), (0.5, 0.2)])
    y = b.node1(first, [x, b.const(np.float32(hi if first == "Min" else lo))], FLOAT, s)
    b.node1(second, [y, b.const(np.float32(lo if first == "Min" else hi))], FLOAT, s)


def pat_exp(b: Builder) -> None:
    x = b.pick_float()
    if x not in b.bounded:
        x = b.node1("Tanh", [x], FLOAT, b.shape(x))
    b.node1("Exp", [x], FLOAT, b.shape(x))


def concat_partners(b: Builder, x: str, axis: int) -> List[str]:
    s = b.shape(x)
    return [
        n
        for n in b.pool
        if b.elem(n) == b.elem(x) and len(b.shape(n)) == len(s) and all(b.shape(n)[i] == s[i] for i in range(len(s)) if i != axis)
    ]


def pat_concat(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = b.shape(x)
    axis = b.randint(0, len(s) - 1)
    ins = [x]
    if b.p(0.8):
        for _ in range(b.randint(1, 2)):
            u = b.rng.random()
            if u < 0.25:
                ins.append(x)  # the same tensor twice
            elif u < 0.5:
                cs = list(s)
                cs[axis] = b.randint(1, 3)
                ins.append(b.const(b.values(b.elem(x), cs)))
            else:
                ins.append(b.pick_one(concat_partners(b, x, axis)))
        b.rng.shuffle(ins)
    out = list(s)
    out[axis] = sum(b.shape(n)[axis] for n in ins)
    written = axis - len(s) if b.p(0.3) else axis
    y = b.node1("Concat", ins, b.elem(x), out, axis=written)
    if b.p(0.2):  # Concat of a Concat
        b.node1("Concat", [y, x], b.elem(x), _concat_shape(b, [y, x], axis), axis=axis)


def _concat_shape(b: Builder, ins: Sequence[str], axis: int) -> List[int]:
    out = list(b.shape(ins[0]))
    out[axis] = sum(b.shape(n)[axis] for n in ins)
    return out


def random_parts(b: Builder, d: int, k: int) -> List[int]:
    cuts = sorted(int(c) for c in b.rng.choice(range(1, d), size=k - 1, replace=False)) if k > 1 else []
    bounds = [0] + cuts + [d]
    return [bounds[i + 1] - bounds[i] for i in range(k)]


def split(b: Builder, x: str, axis: int) -> List[str]:
    s = b.shape(x)
    d = s[axis]
    u = b.rng.random()
    written = axis - len(s) if b.p(0.3) else axis
    if u < 0.2 or d == 1:  # one output
        ins = [x, b.ints([d], "split")] if b.p(0.5) else [x]
        return b.node("Split", ins, [(b.elem(x), s)], axis=written)
    if u < 0.5:
        divisors = [k for k in range(2, min(d, 4) + 1) if d % k == 0]
        if divisors:
            k = b.pick_one(divisors)
            part = list(s)
            part[axis] = d // k
            return b.node("Split", [x], [(b.elem(x), part)] * k, axis=written)
    k = b.randint(2, min(d, 4))
    sizes = random_parts(b, d, k)
    outs = []
    for sz in sizes:
        part = list(s)
        part[axis] = sz
        outs.append((b.elem(x), part))
    return b.node("Split", [x, b.ints(sizes, "split")], outs, axis=written)


def pat_split(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = b.shape(x)
    axis = b.randint(0, len(s) - 1)
    parts = split(b, x, axis)
    if len(parts) > 1 and b.p(0.3):  # back together: Split then Concat
        order = list(parts)
        if b.p(0.3):
            b.rng.shuffle(order)
        b.node1("Concat", order, b.elem(x), s if order == parts else _concat_shape(b, order, axis), axis=axis)


def slice_len(d: int, start: int, end: int, step: int) -> int:
    return len(range(d)[slice(start, end, step)])


def slice_axis(b: Builder, d: int) -> Tuple[int, int, int]:
    u = b.rng.random()
    if u < 0.3:  # the whole axis
        return 0, b.pick_one([INT64_MAX, d, d + 3, -1 if d == 1 else d]), 1
    if u < 0.45:  # reversed
        return b.pick_one([-1, d - 1, INT64_MAX]), b.pick_one([INT64_MIN, -d - 1]), -1
    if u < 0.6:
        step = b.pick_one([2, 3, -2])
        if step > 0:
            return b.randint(0, d - 1), INT64_MAX, step
        return d - 1, INT64_MIN, step
    start = b.randint(0, d - 1)
    end = b.randint(start + 1, d)
    if b.p(0.3):
        start -= d
    if b.p(0.2) and end < d:
        end -= d
    return start, end, 1


def pat_slice(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = b.shape(x)
    r = len(s)
    k = b.randint(1, min(r, 2))
    axes = [int(a) for a in b.rng.choice(r, size=k, replace=False)]
    starts, ends, steps = [], [], []
    out = list(s)
    for a in axes:
        st, en, sp = slice_axis(b, s[a])
        n = slice_len(s[a], st, en, sp)
        if n == 0:
            raise Skip("empty slice")
        out[a] = n
        starts.append(st)
        ends.append(en)
        steps.append(sp)
    ins = [x, b.ints(starts, "starts"), b.ints(ends, "ends")]
    plain_axes = axes == list(range(k))
    with_steps = any(sp != 1 for sp in steps) or b.p(0.4)
    if not plain_axes or b.p(0.6):
        ins.append(b.ints([a - r if b.p(0.3) else a for a in axes], "axes"))
    elif with_steps:
        ins.append("")  # axes left out: the first len(starts) axes
    if with_steps:
        ins.append(b.ints(steps, "steps"))
    y = b.node1("Slice", ins, b.elem(x), out)
    if b.p(0.15):  # Slice of a Slice
        a = b.randint(0, r - 1)
        st, en, sp = slice_axis(b, out[a])
        n = slice_len(out[a], st, en, sp)
        if n:
            out2 = list(out)
            out2[a] = n
            b.node1("Slice", [y, b.ints([st], "starts"), b.ints([en], "ends"), b.ints([a], "axes"), b.ints([sp], "steps")], b.elem(x), out2)


def pat_reduce(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    e, s = b.elem(x), b.shape(x)
    r = len(s)
    op = b.pick_one(["ReduceSum", "ReduceMax"] if e != FLOAT else ["ReduceMean", "ReduceSum", "ReduceMax"])
    keep = b.pick_one([0, 1, None])
    attrs = {} if keep is None else {"keepdims": keep}
    keepdims = keep != 0
    if b.p(0.15):
        axes = None
    else:
        ones = [i for i, d in enumerate(s) if d == 1]
        pool_axes = ones if ones and b.p(0.35) else list(range(r))  # over size-1 dims it changes nothing
        k = b.randint(1, len(pool_axes))
        axes = sorted(int(a) for a in b.rng.choice(pool_axes, size=k, replace=False))
    if op == "ReduceSum" and axes is None and b.p(0.3):
        # no axes with noop_with_empty_axes: the tensor passes through
        b.node1(op, [x], e, s, noop_with_empty_axes=1, **attrs)
        return
    red = list(range(r)) if axes is None else axes
    out = [1 if i in red else d for i, d in enumerate(s)] if keepdims else [d for i, d in enumerate(s) if i not in red]
    ins = [x]
    if axes is not None:
        written = [a - r if b.p(0.3) else a for a in axes]
        if op == "ReduceSum":
            ins.append(b.ints(written, "axes"))
        else:
            attrs["axes"] = written
    b.node1(op, ins, e, out, **attrs)


def gather_indices(b: Builder, n: int) -> np.ndarray:
    u = b.rng.random()
    if u < 0.3:
        return np.arange(n, dtype=np.int64)  # the whole axis in order
    if u < 0.5:
        return np.int64(b.randint(-n, n - 1))  # one index: the axis goes away
    if u < 0.6:
        return np.arange(n - 1, -1, -1, dtype=np.int64)
    if u < 0.7:
        return np.array([b.randint(-n, n - 1)], dtype=np.int64)
    shape = (b.randint(1, 4),) if b.p(0.7) else (b.randint(1, 3), b.randint(1, 3))
    return b.rng.integers(-n, n, shape).astype(np.int64)


def pat_gather(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = b.shape(x)
    axis = b.randint(0, len(s) - 1)
    ind = gather_indices(b, s[axis])
    out = list(s[:axis]) + list(ind.shape) + list(s[axis + 1 :])
    written = axis - len(s) if b.p(0.3) else axis
    y = b.node1("Gather", [x, b.ints(ind, "idx")], b.elem(x), out, axis=written)
    if b.p(0.2) and len(out) >= 1:  # Gather of a Gather
        a2 = b.randint(0, len(out) - 1)
        ind2 = gather_indices(b, out[a2])
        out2 = list(out[:a2]) + list(ind2.shape) + list(out[a2 + 1 :])
        b.node1("Gather", [y, b.ints(ind2, "idx")], b.elem(x), out2, axis=a2)


def pat_cast(b: Builder) -> None:
    x = b.pick_any()
    e, s = b.elem(x), b.shape(x)
    u = b.rng.random()
    if u < 0.4:
        b.node1("Cast", [x], e, s, to=e)  # to the type it already has
    elif u < 0.6 and e == FLOAT:
        mid = b.pick_one([DOUBLE, FLOAT16])
        y = b.node("Cast", [x], [(mid, s)], to=mid)[0]
        b.node1("Cast", [y], FLOAT, s, to=FLOAT)
    elif u < 0.75:
        to = INT64 if e == FLOAT else FLOAT
        b.node1("Cast", [x], to, s, to=to)
    else:  # Cast then Equal, read back as float
        xi = x if e == INT64 else b.node1("Cast", [x], INT64, s, to=INT64)
        eq = b.node("Equal", [xi, b.ints(np.int64(b.randint(-1, 1)), "v")], [(BOOL, s)])[0]
        b.node1("Cast", [eq], FLOAT, s, to=FLOAT)


def pat_pad(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    e, s = b.elem(x), b.shape(x)
    r = len(s)
    u = b.rng.random()
    mode = "constant"
    if u < 0.35:
        pads = [0] * (2 * r)
    else:
        pads = [b.randint(0, 2) if b.p(0.5) else 0 for _ in range(2 * r)]
        if b.p(0.15):  # a negative pad crops
            i = b.randint(0, r - 1)
            if s[i] > 1:
                pads[i] = -1
        if b.p(0.2) and all(p >= 0 for p in pads):
            mode = b.pick_one(["reflect", "edge"])
            if mode == "reflect":
                pads = [min(p, s[i % r] - 1) for i, p in enumerate(pads)]
    out = [s[i] + pads[i] + pads[i + r] for i in range(r)]
    ins = [x, b.ints(pads, "pads")]
    if mode == "constant" and b.p(0.4):
        ins.append(b.const(b.values(e, (), "zeros" if b.p(0.5) else "random"), "pv"))
    attrs = {"mode": mode} if mode != "constant" or b.p(0.3) else {}
    b.node1("Pad", ins, e, out, **attrs)


def pat_expand(b: Builder) -> None:
    x = b.pick_any()
    s = b.shape(x)
    u = b.rng.random()
    if u < 0.3:
        target = [1] * (len(s) if b.p(0.7) else max(len(s) - 1, 0))  # all ones: nothing to expand
        if not target:
            target = [1]
    elif u < 0.45:
        target = list(s)
    else:
        target = list(b.other_shape(s))
    out = broadcast(s, target)
    b.node1("Expand", [x, b.ints(target, "shape")], b.elem(x), out)


def pat_tile(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = b.shape(x)
    reps = [1] * len(s) if b.p(0.3) else [b.randint(1, 2) for _ in s]
    b.node1("Tile", [x, b.ints(reps, "reps")], b.elem(x), [d * k for d, k in zip(s, reps)])


def pat_where(b: Builder) -> None:
    x = b.pick_any()
    e, s = b.elem(x), b.shape(x)
    cshape = b.other_shape(s)
    kind = b.pick_one(["true", "false", "mixed"])
    if kind == "true":
        cond = np.ones(cshape, dtype=bool)
    elif kind == "false":
        cond = np.zeros(cshape, dtype=bool)
    else:
        cond = b.rng.random(cshape) < 0.5
    c = b.const(cond, "cond")
    u = b.rng.random()
    if u < 0.4:
        other = b.const(b.values(e, b.other_shape(s)))
    elif u < 0.55:
        other = x
    else:
        cands = [n for n in b.pool if b.elem(n) == e and broadcast(s, b.shape(n), cshape)]
        other = b.pick_one(cands)
    ins = [x, other] if b.p(0.5) else [other, x]
    out = broadcast(s, b.shape(other), cshape)
    b.node1("Where", [c] + ins, e, out)


def full_grid(shape: Sequence[int]) -> np.ndarray:
    """Every index tuple of ``shape``, in order, as [..., len(shape)]."""
    grid = np.stack(np.meshgrid(*[np.arange(d) for d in shape], indexing="ij"), axis=-1)
    return grid.reshape(tuple(shape) + (len(shape),)).astype(np.int64)


def pat_scatternd(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    e, s = b.elem(x), b.shape(x)
    r = len(s)
    k = b.randint(1, min(r, 3))
    lead = s[:k]
    grid = full_grid(lead)
    u = b.rng.random()
    if u < 0.45:
        ind = grid  # every position, laid out like the data
    elif u < 0.65:
        flat = grid.reshape(-1, k)
        ind = flat[b.rng.permutation(len(flat))]
    else:
        flat = grid.reshape(-1, k)
        m = b.randint(1, len(flat))
        ind = flat[np.sort(b.rng.choice(len(flat), size=m, replace=False))]
    upd_shape = tuple(ind.shape[:-1]) + tuple(s[k:])
    reduction = b.pick_one(["none", "none", "add", "mul"])
    partners = [n for n in b.pool if b.elem(n) == e and b.shape(n) == upd_shape]
    if partners and b.p(0.5):
        upd = b.pick_one(partners)
    else:
        kind = {"add": "zeros", "mul": "ones"}.get(reduction, "random") if b.p(0.5) else "random"
        upd = b.const(b.values(e, upd_shape, kind))
    attrs = {"reduction": reduction} if reduction != "none" or b.p(0.3) else {}
    y = b.node1("ScatterND", [x, b.ints(ind, "idx"), upd], e, s, **attrs)
    if b.p(0.25):  # a second ScatterND on the result
        m = b.randint(1, len(grid.reshape(-1, k)))
        ind2 = grid.reshape(-1, k)[:m]
        upd2 = b.const(b.values(e, (m,) + tuple(s[k:])))
        b.node1("ScatterND", [y, b.ints(ind2, "idx"), upd2], e, s)


def pat_gathernd(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    e, s = b.elem(x), b.shape(x)
    r = len(s)
    if r >= 2 and b.p(0.2):
        k = b.randint(1, r - 1)
        m = b.randint(1, 3)
        ind = np.stack([b.rng.integers(0, s[1 + j], (s[0], m)) for j in range(k)], axis=-1).astype(np.int64)
        out = [s[0], m] + list(s[1 + k :])
        b.node1("GatherND", [x, b.ints(ind, "idx")], e, out, batch_dims=1)
        return
    k = b.randint(1, r)
    if b.p(0.4):
        ind = full_grid(s[:k])
    else:
        m = b.randint(1, 4)
        ind = np.stack([b.rng.integers(0, s[j], m) for j in range(k)], axis=-1).astype(np.int64)
    out = list(ind.shape[:-1]) + list(s[k:])
    b.node1("GatherND", [x, b.ints(ind, "idx")], e, out)


def pat_batchnorm(b: Builder) -> None:
    x = b.pick_float(min_rank=2, max_rank=4)
    s = b.shape(x)
    c = s[1]
    if b.p(0.6):
        params = [np.ones(c), np.zeros(c), np.zeros(c), np.ones(c)]
        # An epsilon below float32 resolution at 1 makes these parameters an
        # exact identity. With the usual 1e-5 the node scales by 1 - 5e-6,
        # which is within tolerance on its own but shows through Sub(x, bn(x)).
        attrs = {"epsilon": 1e-10}
    else:
        params = [b.rng.standard_normal(c), b.rng.standard_normal(c), b.rng.standard_normal(c), b.rng.uniform(0.5, 2, c)]
        attrs = {"epsilon": 1e-5} if b.p(0.3) else {}
    names = [b.const(p.astype(np.float32), "bn") for p in params]
    b.node1("BatchNormalization", [x] + names, FLOAT, s, **attrs)


def pat_pool(b: Builder) -> None:
    x = b.pick_float(min_rank=3, max_rank=4)
    s = b.shape(x)
    sp = len(s) - 2
    op = b.pick_one(["MaxPool", "AveragePool"])
    attrs: Dict[str, object] = {}
    if b.p(0.75) or any(d < 2 for d in s[2:]):
        attrs["kernel_shape"] = [1] * sp
        out = list(s)
        if b.p(0.5):
            attrs["strides"] = [1] * sp
        if b.p(0.3):
            attrs["pads"] = [0] * (2 * sp)
        if op == "MaxPool" and b.p(0.5):
            attrs["dilations"] = [1] * sp
    else:
        k, st = b.pick_one([(2, 2), (2, 1), (3, 1)])
        if any(d < k for d in s[2:]):
            raise Skip("kernel too large")
        attrs["kernel_shape"] = [k] * sp
        attrs["strides"] = [st] * sp
        out = list(s[:2]) + [(d - k) // st + 1 for d in s[2:]]
    b.node1(op, [x], FLOAT, out, **attrs)
    if b.p(0.15):  # the same pool twice on one tensor
        b.node1(op, [x], FLOAT, out, **attrs)


def pat_conv(b: Builder) -> None:
    x = b.pick_float(min_rank=3, max_rank=4)
    s = b.shape(x)
    sp = len(s) - 2
    c = s[1]
    m = c if b.p(0.4) else b.randint(1, 6)
    k = 1 if b.p(0.6) else 3
    pad = 1 if k == 3 and (b.p(0.6) or any(d < 3 for d in s[2:])) else 0  # small maps need the padding
    if k == 1 and m == c and b.p(0.4):
        w = np.eye(c).reshape((c, c) + (1,) * sp)
    else:
        w = b.rng.standard_normal((m, c) + (k,) * sp) / math.sqrt(c * k**sp)
    ins = [x, b.const(w.astype(np.float32), "w")]
    if b.p(0.5):
        ins.append(b.const(b.rng.standard_normal(m).astype(np.float32), "bias"))
    attrs: Dict[str, object] = {"kernel_shape": [k] * sp} if b.p(0.7) else {}
    if pad:
        attrs["pads"] = [1] * (2 * sp)
    out = [s[0], m] + [d + 2 * pad - k + 1 for d in s[2:]]
    b.node1("Conv", ins, FLOAT, out, **attrs)
    if b.p(0.2) and k == 1:  # a second reader of the same 1x1 Conv input, identical
        b.node1("Conv", ins, FLOAT, out, **attrs)


def pat_resize(b: Builder) -> None:
    x = b.pick_float(rank=4)
    s = b.shape(x)
    u = b.rng.random()
    if u < 0.5:
        scales = [1.0] * 4
        ins = [x, "", b.const(np.array(scales, dtype=np.float32), "scales")]
        out = list(s)
    elif u < 0.75:
        ins = [x, "", "", b.ints(list(s), "sizes")]
        out = list(s)
    else:
        ins = [x, "", b.const(np.array([1, 1, 2, 2], dtype=np.float32), "scales")]
        out = list(s[:2]) + [2 * s[2], 2 * s[3]]
    b.node1("Resize", ins, FLOAT, out, mode="nearest")


def pat_fanout(b: Builder) -> None:
    """One tensor read by several simple nodes, some of them identical."""
    x = b.pick_any()
    e, s = b.elem(x), b.shape(x)
    for _ in range(b.randint(2, 5)):
        u = b.rng.random()
        if u < 0.2 and e == FLOAT:
            b.node1("Relu", [x], e, s)
        elif u < 0.35:
            b.node1("Identity", [x], e, s)
        elif u < 0.5 and len(s) >= 2:
            transpose(b, x, random_perm(b, len(s)))
        elif u < 0.65:
            reshape(b, x, factor_shape(b, prod(s)))
        elif u < 0.8:
            elementwise_const(b, x, "Mul" if b.p(0.5) else "Add", "ones" if b.p(0.5) else "random", b.p(0.5), b.other_shape(s, larger=False))
        elif e == FLOAT:
            b.node1("Sub", [x, x], e, s)
        else:
            b.node1("Neg", [x], e, s)


def to_4d(b: Builder) -> str:
    """A float tensor of rank 4, reshaping one into [1, C, H, W] if needed."""
    try:
        return b.pick_float(rank=4)
    except Skip:
        x = b.pick_float()
        dims = factor_shape(b, prod(b.shape(x)))
        if len(dims) > 3:
            raise Skip("not 4-D")
        dims += [1] * (3 - len(dims))
        return reshape(b, x, [1] + dims)


def pat_nhwc_region(b: Builder) -> None:
    """Transpose(0,2,3,1), layout-free work in channels-last, Transpose(0,3,1,2):
    the region the transpose-mesh rule works on, with forks, several readers,
    and exits that are graph outputs or feed ordinary nodes."""
    x = to_4d(b)
    region = [transpose(b, x, [0, 2, 3, 1])]
    if b.p(0.25):  # a second entry of the same shape
        cands = [n for n in b.pool if b.elem(n) == FLOAT and b.shape(n) == b.shape(x) and n != x]
        if cands:
            t2 = transpose(b, b.pick_one(cands), [0, 2, 3, 1])
            region.append(b.node1(b.pick_one(["Add", "Mul", "Sub"]), [region[0], t2], FLOAT, b.shape(t2)))

    def pick_r() -> str:
        return b.pick_one(region[-2:]) if b.p(0.6) else b.pick_one(region)

    def keep(n: str, share: bool = True) -> None:
        region.append(n)
        if not share and n in b.pool:
            b.pool.remove(n)

    for _ in range(b.randint(1, 6)):
        t = pick_r()
        s = b.shape(t)
        u = b.rng.random()
        try:
            if u < 0.25:
                n_, h, w, c = s
                cs = b.pick_one([(c,), (1, 1, 1, c), (), (1, h, w, c), (1, 1, w, 1), (1,)])
                op = b.pick_one(["Add", "Mul", "Sub"])
                kind = b.pick_one(["random", "zeros" if op != "Mul" else "ones"])
                keep(elementwise_const(b, t, op, kind, b.p(0.4), cs), b.p(0.5))
            elif u < 0.4:
                keep(b.node1(b.pick_one(["Relu", "Sigmoid", "Tanh", "LeakyRelu"]), [t], FLOAT, s), b.p(0.5))
            elif u < 0.5:
                partners = [n for n in region if b.shape(n) == s]
                keep(b.node1(b.pick_one(["Add", "Mul"]), [t, b.pick_one(partners)], FLOAT, s), b.p(0.5))
            elif u < 0.6:
                axis = b.pick_one([3, 3, 1, 2])
                partners = [n for n in region if len(b.shape(n)) == 4 and all(b.shape(n)[i] == s[i] for i in range(4) if i != axis)]
                ins = [t, b.pick_one(partners)]
                keep(b.node1("Concat", ins, FLOAT, _concat_shape(b, ins, axis), axis=axis if b.p(0.7) else axis - 4), b.p(0.3))
            elif u < 0.68:
                axis = b.pick_one([3, 1, 2])
                if s[axis] < 2:
                    continue
                for o in split(b, t, axis):
                    keep(o, b.p(0.3))
            elif u < 0.76:
                axis = b.pick_one([1, 2, 3])
                st, en, sp = slice_axis(b, s[axis])
                n = slice_len(s[axis], st, en, sp)
                if n:
                    out = list(s)
                    out[axis] = n
                    ins = [t, b.ints([st], "starts"), b.ints([en], "ends"), b.ints([axis], "axes")]
                    if sp != 1:
                        ins.append(b.ints([sp], "steps"))
                    keep(b.node1("Slice", ins, FLOAT, out), b.p(0.3))
            elif u < 0.83:
                axis = b.pick_one([1, 2, 3])
                out = list(s)
                out[axis] = 1
                keep(b.node1("ReduceMax", [t], FLOAT, out, axes=[axis], keepdims=1), b.p(0.3))
            elif u < 0.9:
                axis = b.pick_one([1, 2, 3])
                ind = np.arange(s[axis], dtype=np.int64) if b.p(0.5) else b.rng.integers(0, s[axis], b.randint(1, 4)).astype(np.int64)
                out = list(s)
                out[axis] = len(ind)
                keep(b.node1("Gather", [t, b.ints(ind, "idx")], FLOAT, out, axis=axis), b.p(0.3))
            else:
                target = [1, 1, 1, 1] if b.p(0.5) else list(s)
                keep(b.node1("Expand", [t, b.ints(target, "shape")], FLOAT, s), b.p(0.3))
        except Skip:
            continue
    exits = [region[-1]] + [n for n in region[:-1] if b.p(0.3)]
    for t in exits:
        perm = [0, 3, 1, 2] if b.p(0.9) else random_perm(b, 4)
        y = transpose(b, t, perm)
        if b.p(0.2) and perm == [0, 3, 1, 2]:
            pat_conv_on(b, y)


def pat_conv_on(b: Builder, x: str) -> None:
    s = b.shape(x)
    c = s[1]
    w = (b.rng.standard_normal((c, c, 1, 1)) / math.sqrt(c)).astype(np.float32)
    b.node1("Conv", [x, b.const(w, "w")], FLOAT, s)


# -- Transpose-Reshape neighbours, canonical forms, shuffles, duplicates ---


def ones_moved(b: Builder, s: Shape) -> List[int]:
    """``s`` with its size-1 axes in other places: same rank, same data order."""
    rest = [d for d in s if d != 1]
    ones = len(s) - len(rest)
    slots = set(int(i) for i in b.rng.choice(len(s), size=ones, replace=False)) if ones else set()
    it = iter(rest)
    return [1 if i in slots else next(it) for i in range(len(s))]


def split_in_place(b: Builder, s: Shape) -> Optional[List[int]]:
    """``s`` with one axis split in two and one size-1 axis dropped: the same
    rank, a Reshape that only splits axes."""
    if 1 not in s:
        return None
    splittable = [i for i, d in enumerate(s) if d > 3 and any(d % f == 0 for f in range(2, d))]
    if not splittable:
        return None
    i = b.pick_one(splittable)
    f = b.pick_one([f for f in range(2, s[i]) if s[i] % f == 0])
    out = list(s)
    out[i : i + 1] = [f, s[i] // f]
    out.remove(1)  # the two new sizes are above 1
    return out


def pat_tp_rs_neighbours(b: Builder) -> None:
    """A Transpose beside a Reshape: Reshapes that only move size-1 axes, only
    split axes (with a second Transpose behind), or move data; Transposes that
    only move size-1 axes or really permute; sometimes a second reader of the
    tensor between them, or a graph output there."""
    x = b.pick_any(min_rank=2)
    s = b.shape(x)

    def target_for(shape: Shape) -> List[int]:
        u = b.rng.random()
        if u < 0.35:
            return ones_moved(b, shape)
        if u < 0.7:
            t = split_in_place(b, shape)
            if t is not None:
                return t
        return factor_shape(b, prod(shape))

    if b.p(0.5):
        t = transpose(b, x, choose_perm(b, s) or random_perm(b, len(s)))
        mid = t
        y = reshape(b, t, target_for(b.shape(t)))
        if len(b.shape(y)) == len(b.shape(t)) and b.p(0.6):  # Transpose, Reshape, Transpose
            transpose(b, y, random_perm(b, len(b.shape(y))))
    else:
        mid = reshape(b, x, target_for(s))
        ms = b.shape(mid)
        if len(ms) < 1:
            raise Skip("scalar")
        transpose(b, mid, choose_perm(b, ms) or random_perm(b, len(ms)))
    if b.p(0.12):
        b.node1("Relu" if b.elem(mid) == FLOAT else "Neg", [mid], b.elem(mid), b.shape(mid))


def tensor_of(b: Builder, shape: Sequence[int]) -> str:
    """A float tensor of ``shape``: an existing one reshaped when one of that
    size exists, else a new graph input."""
    n = prod(shape)
    cands = [t for t in b.pool if b.elem(t) == FLOAT and prod(b.shape(t)) == n]
    if cands and b.p(0.5):
        t = b.pick_one(cands)
        return t if b.shape(t) == tuple(shape) else reshape(b, t, list(shape))
    return b.add_input(FLOAT, tuple(shape))


def pat_channel_groups(b: Builder) -> None:
    """4-D Reshape and Transpose on whole 16-channel groups: a perm that lets
    the target run the Reshape in place, and Reshape, elementwise op, Reshape
    with a broadcast operand that a Gather can widen (or cannot)."""
    u = b.rng.random()
    if u < 0.4:
        x = tensor_of(b, (1, 16, 2, 8))
        if b.p(0.5):
            y = reshape(b, x, [1, 4, 16, 4])
            transpose(b, y, b.pick_one([[0, 2, 1, 3], [0, 1, 3, 2], [0, 3, 2, 1]]))
        else:
            t = transpose(b, x, b.pick_one([[0, 2, 1, 3], [0, 1, 3, 2]]))
            reshape(b, t, b.pick_one([[1, 16, 2, 8], [1, 4, 8, 8], [2, 8, 2, 8]]))
        return
    n, c, w = b.pick_one([(4, 16, 4), (2, 32, 2), (4, 16, 2)])
    x = tensor_of(b, (n, c, 1, w))
    a = reshape(b, x, [n // 2, 2, c, w])
    op = b.pick_one(["Add", "Mul", "Sub", "Div"])
    bshape = b.pick_one([(n // 2, 2, 1, w), (n // 2, 2, 1, 1), (1, 2, 1, w), (n // 2, 1, c, 1), (n // 2, 2, c, w)])
    k = b.const(b.values(FLOAT, bshape, "nonzero" if op == "Div" else "random"))
    ins = [a, k] if op == "Div" or b.p(0.6) else [k, a]
    e = b.node1(op, ins, FLOAT, (n // 2, 2, c, w))
    reshape(b, e, b.pick_one([[n // 2, 2 * c, 1, w], [n, c, 1, w], [n // 2, 2 * c, w, 1]]))


def pat_inner_shuffle(b: Builder) -> None:
    """Channels (or W) split into groups whose order a Transpose swaps, then
    merged back: a channel shuffle, sometimes ahead of a 1x1 Conv, sometimes
    with the shuffled tensor read twice."""
    x = b.pick_float(rank=4) if b.p(0.5) else to_4d(b)
    n, c, h, w = b.shape(x)
    on_w = b.p(0.25)
    d = w if on_w else c
    groups = [g for g in range(2, d) if d % g == 0]
    if not groups:
        raise Skip("nothing to shuffle")
    g = b.pick_one(groups)
    if on_w:
        split, perm = [n, c, h, g, w // g], [0, 1, 2, 4, 3]
    else:
        split, perm = [n, g, c // g, h, w], [0, 2, 1, 3, 4]
    a = reshape(b, x, split)
    t = transpose(b, a, perm)
    y = reshape(b, t, [n, c, h, w])
    if b.p(0.15):
        b.node1("Relu", [t], FLOAT, b.shape(t))
    if b.p(0.3):
        pat_conv_on(b, y)


def pat_gather_ranges(b: Builder) -> None:
    """Gather of consecutive indices, of a whole axis, or of one index; near
    misses with a gap, negative indices or a reversed run."""
    x = b.pick_any(min_rank=1)
    s = b.shape(x)
    axis = b.randint(0, len(s) - 1)
    d = s[axis]
    u = b.rng.random()
    if u < 0.3:
        start = b.randint(0, d - 1)
        ind = np.arange(start, b.randint(start + 1, d), dtype=np.int64) if start < d - 1 else np.array([start], np.int64)
    elif u < 0.5:
        ind = np.arange(d, dtype=np.int64) if b.p(0.6) else np.int64(b.randint(0, d - 1))
    elif u < 0.65:
        ind = np.arange(-d, 0, dtype=np.int64)[: b.randint(1, d)]
    elif u < 0.8 and d > 2:
        ind = np.array([0, 2], np.int64)
    else:
        ind = np.arange(d - 1, -1, -1, dtype=np.int64)
    out = list(s[:axis]) + list(ind.shape) + list(s[axis + 1 :])
    written = axis - len(s) if b.p(0.3) else axis
    b.node1("Gather", [x, b.ints(ind, "idx")], b.elem(x), out, axis=written)


def _sibling_parts(b: Builder, x: str, op: str):
    """Inputs after ``x``, attributes and output shapes of one ``op`` reading
    ``x``; constants are made per call, so twins hold equal values under two
    names. None when ``op`` does not fit ``x``."""
    e, s = b.elem(x), b.shape(x)
    r = len(s)
    if e != FLOAT and op in FLOAT_ONLY_SIBLINGS:
        return None
    if op in ("Relu", "Floor"):
        return [], {}, [(e, s)]
    if op == "Softmax":
        return ([], {"axis": b.randint(-r, r - 1)}, [(e, s)]) if r else None
    if op == "LeakyRelu":
        return [], {"alpha": 0.1}, [(e, s)]
    if op == "Cast":
        return [], {"to": e}, [(e, s)]
    if op in ("Sub", "Mul", "Equal"):
        cs = b.other_shape(s, larger=False)
        seed = int(b.rng.integers(1 << 30))
        vals = np.random.default_rng(seed).standard_normal(cs).astype(np.float32)
        return [lambda: b.const(vals if e == FLOAT else vals.astype(np.int64))], {}, [(BOOL if op == "Equal" else e, broadcast(s, cs))]
    if op in ("MaxPool", "AveragePool") and r in (3, 4):
        k = 1 if any(dd < 2 for dd in s[2:]) else b.pick_one([1, 2])
        return [], {"kernel_shape": [k] * (r - 2)}, [(e, list(s[:2]) + [dd - k + 1 for dd in s[2:]])]
    if op == "Reshape":
        target = factor_shape(b, prod(s))
        return [lambda: b.ints(target, "shape")], {}, [(e, target)]
    if op == "Transpose" and r >= 1:
        perm = random_perm(b, r)
        return [], {"perm": perm}, [(e, [s[p] for p in perm])]
    if op == "Slice" and r >= 1:
        a = b.randint(0, r - 1)
        st = b.randint(0, s[a] - 1)
        en = b.randint(st + 1, s[a])
        out = list(s)
        out[a] = en - st
        return [lambda: b.ints([st], "starts"), lambda: b.ints([en], "ends"), lambda: b.ints([a], "axes"), lambda: b.ints([1], "steps")], {}, [(e, out)]
    if op == "Conv" and r == 4 and e == FLOAT:
        m = b.randint(1, 4)
        w = (b.rng.standard_normal((m, s[1], 1, 1)) / math.sqrt(s[1])).astype(np.float32)
        return [lambda: b.const(w, "w")], {"kernel_shape": [1, 1]}, [(e, [s[0], m] + list(s[2:]))]
    if op == "Expand":
        target = list(b.other_shape(s))
        return [lambda: b.ints(target, "shape")], {}, [(e, broadcast(s, target))]
    if op == "Split" and r >= 1 and max(s) >= 2:
        a = b.pick_one([i for i in range(r) if s[i] >= 2])
        parts = random_parts(b, s[a], 2)
        outs = [(e, s[:a] + (p_,) + s[a + 1 :]) for p_ in parts]
        return [lambda: b.ints(parts, "split")], {"axis": a}, outs
    if op == "Gather" and r >= 1:
        a = b.randint(0, r - 1)
        ind = b.rng.integers(0, s[a], b.randint(1, 3)).astype(np.int64)
        return [lambda: b.ints(ind, "idx")], {"axis": a}, [(e, s[:a] + (len(ind),) + s[a + 1 :])]
    if op == "ScatterND" and r >= 1:
        m = b.randint(1, s[0])
        ind = np.arange(m, dtype=np.int64).reshape(m, 1)
        upd = b.values(e, (m,) + s[1:])
        return [lambda: b.ints(ind, "idx"), lambda: b.const(upd)], {}, [(e, s)]
    if op == "Concat" and r >= 1:
        return ["x"], {"axis": 0}, [(e, (2 * s[0],) + s[1:])]
    return None


FLOAT_ONLY_SIBLINGS = {"Relu", "Floor", "Softmax", "LeakyRelu", "MaxPool", "AveragePool", "Conv"}
SIBLING_OPS = ["Relu", "MaxPool", "AveragePool", "Reshape", "Transpose", "Slice", "Softmax", "Cast", "Sub",
               "LeakyRelu", "Conv", "Equal", "Mul", "Expand", "Split", "Gather", "ScatterND", "Floor", "Concat"]


def pat_siblings(b: Builder) -> None:
    """Two or three nodes of one op type on one tensor, computing the same
    thing (constants equal under other names) or nearly (another attribute,
    another constant, operands swapped, one with a graph output)."""
    x = b.pick_any()
    op = b.pick_one(SIBLING_OPS)
    parts = _sibling_parts(b, x, op)
    if parts is None:
        raise Skip(op)
    extra, attrs, outs = parts
    if any(o[1] is None for o in outs):
        raise Skip("does not broadcast")
    shared = [f() if callable(f) and b.p(0.5) else f for f in extra]
    for k in range(b.randint(2, 3)):
        near_miss = k > 0 and b.p(0.25)
        ins = [x] + [x if f == "x" else (f() if callable(f) else f) for f in shared]
        a, o = dict(attrs), outs
        if near_miss:
            if op in ("Sub", "Mul", "Equal") and b.p(0.5):
                ins = [ins[1], ins[0]]
            elif "alpha" in a:
                a["alpha"] = 0.2
            elif op == "Softmax" and len(b.shape(x)) > 1:
                a["axis"] = (a["axis"] + 1) % len(b.shape(x))
            elif op == "Transpose":
                a = {"perm": ones_only_perm(b, b.shape(x))}
                o = [(b.elem(x), [b.shape(x)[p] for p in a["perm"]])]
        names = b.node(op, ins, o, **a)
        for name, (e, _) in zip(names, o):
            if e == BOOL:
                b.node1("Cast", [name], FLOAT, b.shape(name), to=FLOAT)
            elif b.p(0.5):
                b.node1("Neg" if e != FLOAT or b.p(0.5) else "Relu", [name], e, b.shape(name))


# -- what folding and the standard fusions work on ------------------------------


def pat_const_subgraph(b: Builder) -> None:
    """A few operators on constants only, whose result meets the data: what
    exporters leave of weight preprocessing."""
    x = b.pick_any()
    e, s = b.elem(x), b.shape(x)
    cs = tuple(b.other_shape(s, larger=False))
    c = b.const(b.values(e, cs, "nonzero" if e == FLOAT else "random"))
    share = b.p(0.3)  # later patterns may read the folded tensors too
    for _ in range(b.randint(1, 3)):
        u = b.rng.random()
        if u < 0.25:
            ops = ["Neg", "Abs", "Relu", "Sigmoid", "Floor"] if e == FLOAT else ["Neg", "Abs"]
            c = b.node1(b.pick_one(ops), [c], e, cs, pool=share)
        elif u < 0.45 and len(cs) >= 2:
            perm = random_perm(b, len(cs))
            t = transpose(b, c, perm)
            c = transpose(b, t, inverse_perm(perm))
        elif u < 0.65:
            other = b.const(b.values(e, cs if b.p(0.6) else ()))
            c = b.node1(b.pick_one(["Add", "Mul", "Sub"]), [c, other], e, cs, pool=share)
        elif u < 0.8:
            flat = b.node1("Reshape", [c, b.ints([-1], "shape")], e, [prod(cs)], pool=share)
            c = b.node1("Reshape", [flat, b.ints(list(cs) or [], "shape")], e, cs, pool=share)
        elif e == FLOAT:
            wide = b.node1("Cast", [c], DOUBLE, cs, pool=False, to=DOUBLE)
            c = b.node1("Cast", [wide], FLOAT, cs, pool=share, to=FLOAT)
        else:
            c = b.node1("Identity", [c], e, cs, pool=share)
    ins = [x, c] if b.p(0.6) else [c, x]
    b.node1(b.pick_one(["Add", "Mul", "Sub"]), ins, e, broadcast(s, cs))


def shape_piece(b: Builder, shape_t: str, s: Shape, i: int) -> str:
    """Dimension i of a tensor as a 1-element int64, read from its Shape."""
    if b.p(0.5):
        dim = b.node1("Gather", [shape_t, b.const(np.int64(i - len(s) if b.p(0.3) else i), "idx")], INT64, [], pool=False, axis=0)
        return b.node1("Unsqueeze", [dim, b.ints([0], "axes")], INT64, [1], pool=False)
    if b.p(0.5):
        return b.node1("Gather", [shape_t, b.ints([i], "idx")], INT64, [1], pool=False, axis=0)
    return b.node1("Slice", [shape_t, b.ints([i], "starts"), b.ints([i + 1], "ends")], INT64, [1], pool=False)


def pat_shape_arith(b: Builder) -> None:
    """Shape -> Gather -> Unsqueeze -> Concat -> Reshape on a static shape, as
    transformer exports split and merge heads: the target dims are read from
    the input's shape where they match, products of two where two merge, and
    constants (one of them -1) elsewhere."""
    x = b.pick_any(min_rank=1)
    s = b.shape(x)
    shape_t = b.node1("Shape", [x], INT64, [len(s)], pool=False)
    pieces, target, i = [], [], 0
    free = True
    while i < len(s):
        u = b.rng.random()
        if u < 0.3 and i + 1 < len(s):  # two dims merged
            prod_t = b.node1("Mul", [shape_piece(b, shape_t, s, i), shape_piece(b, shape_t, s, i + 1)], INT64, [1], pool=False)
            pieces.append(prod_t)
            target.append(s[i] * s[i + 1])
            i += 2
            continue
        if u < 0.45 and free:
            pieces.append(b.ints([-1], "dims"))
            free = False
        elif u < 0.6:
            pieces.append(b.ints([s[i]], "dims"))
        else:
            pieces.append(shape_piece(b, shape_t, s, i))
        target.append(s[i])
        i += 1
    if len(pieces) == 1:
        tgt = pieces[0]
    else:
        tgt = b.node1("Concat", pieces, INT64, [len(pieces)], pool=False, axis=0)
    y = b.node1("Reshape", [x, tgt], b.elem(x), target)
    if b.p(0.3):  # and back to the original shape, read from the input
        b.node1("Reshape", [y, shape_t], b.elem(x), s)


def pat_mask(b: Builder) -> None:
    """A mask built from static sizes (Range, Unsqueeze, a comparison, Expand,
    ConstantOfShape, Where) and applied to the data."""
    x = b.pick_float(min_rank=1)
    s = b.shape(x)
    n = s[-1]
    dim = b.node1("Gather", [b.node1("Shape", [x], INT64, [len(s)], pool=False), b.const(np.int64(-1), "idx")], INT64, [], pool=False, axis=0)
    pos = b.node1("Range", [b.const(np.int64(0), "start"), dim, b.const(np.int64(1), "delta")], INT64, [n], pool=False)
    if len(s) >= 2 and s[-2] == n and b.p(0.6):
        row = b.node1("Unsqueeze", [pos, b.ints([0], "axes")], INT64, [1, n], pool=False)
        col = b.node1("Unsqueeze", [pos, b.ints([1], "axes")], INT64, [n, 1], pool=False)
        mask = b.node1(b.pick_one(["Less", "Greater", "Equal"]), [row, col], BOOL, [n, n], pool=False)
        ms = (n, n)
    else:
        k = b.const(np.int64(b.randint(0, n)), "k")
        mask = b.node1(b.pick_one(["Less", "Greater", "Equal"]), [pos, k], BOOL, [n], pool=False)
        ms = (n,)
    if b.p(0.4):
        mask = b.node1("Equal", [mask, b.const(np.bool_(False), "no")], BOOL, ms, pool=False)
    if b.p(0.4):
        mask = b.node1("Expand", [mask, b.node1("Shape", [x], INT64, [len(s)], pool=False)], BOOL, broadcast(s, ms), pool=False)
        ms = broadcast(s, ms)
    if b.p(0.3):
        ones = b.node1("ConstantOfShape", [b.node1("Shape", [x], INT64, [len(s)], pool=False)], FLOAT, s, pool=False,
                       value=numpy_helper.from_array(np.array([1.0], np.float32)))
        x = b.node1("Mul", [x, ones], FLOAT, s)
    bias = b.node1("Where", [mask, b.const(np.float32(0.0), "keep"), b.const(np.float32(-4.0), "drop")], FLOAT, ms, pool=False)
    b.node1("Add", [x, bias], FLOAT, broadcast(s, ms))


def _branch(b: Builder, x: str, depth: int) -> onnx.GraphProto:
    """A branch of an If: a small computation of the outer tensor x."""
    e, s = b.elem(x), b.shape(x)
    nodes: List[onnx.NodeProto] = []
    inits: List[onnx.TensorProto] = []
    t = x

    def made(name: str) -> str:
        b.info[name] = (e, tuple(s))
        return name

    for _ in range(b.randint(1, 2)):
        out = made(b.fresh("br"))
        ops = ["Relu", "Neg", "Abs", "Sigmoid"] if e == FLOAT else ["Neg", "Abs"]
        nodes.append(helper.make_node(b.pick_one(ops), [t], [out], name=b.fresh("brn")))
        t = out
    if depth == 0 and b.p(0.3):  # an If inside the branch, on another fixed condition
        size = b.fresh("br")
        cond = b.fresh("br")
        lim = b.fresh("brc")
        inits.append(numpy_helper.from_array(np.array(b.randint(0, 2 * prod(s)), np.int64), lim))
        nodes.append(helper.make_node("Size", [x], [size], name=b.fresh("brn")))
        nodes.append(helper.make_node("Less", [size, lim], [cond], name=b.fresh("brn")))
        out = made(b.fresh("br"))
        nodes.append(helper.make_node("If", [cond], [out], name=b.fresh("brn"),
                                      then_branch=_branch(b, t, 1), else_branch=_branch(b, t, 1)))
        t = out
    if t == x or b.p(0.2):  # an outer tensor passed out through an Identity
        out = made(b.fresh("br"))
        nodes.append(helper.make_node("Identity", [t], [out], name=b.fresh("brn")))
        t = out
    return helper.make_graph(nodes, b.fresh("branch"), [], [helper.make_tensor_value_info(t, e, list(s))], inits)


def pat_const_if(b: Builder) -> None:
    """An If whose condition is fixed by static shapes."""
    x = b.pick_any()
    s = b.shape(x)
    size = b.node1("Size", [x], INT64, [], pool=False)
    cond = b.node1(b.pick_one(["Equal", "Greater"]), [size, b.const(np.int64(prod(s) - b.randint(0, 1)), "n")], BOOL, [], pool=False)
    b.node1("If", [cond], b.elem(x), s, then_branch=_branch(b, x, 0), else_branch=_branch(b, x, 0))


def pat_conv_bn(b: Builder) -> None:
    """Conv or ConvTranspose, then BatchNormalization."""
    x = b.pick_float(min_rank=3, max_rank=4)
    s = b.shape(x)
    sp, c = len(s) - 2, s[1]
    group = b.pick_one([g for g in (1, 2, c) if c % g == 0])
    m = group * b.randint(1, 3)
    if b.p(0.3):
        w = b.rng.standard_normal((c, m // group) + (1,) * sp) / math.sqrt(c)
        op, out = "ConvTranspose", [s[0], m] + list(s[2:])
    else:
        k = 1 if b.p(0.5) or any(d < 3 for d in s[2:]) else 3
        w = b.rng.standard_normal((m, c // group) + (k,) * sp) / math.sqrt(c * k**sp)
        op, out = "Conv", [s[0], m] + [d - k + 1 for d in s[2:]]
    ins = [x, b.const(w.astype(np.float32), "w")]
    if b.p(0.4):
        ins.append(b.const(b.rng.standard_normal(m).astype(np.float32), "bias"))
    y = b.node1(op, ins, FLOAT, out, group=group)
    params = [b.rng.uniform(0.5, 2, m), b.rng.standard_normal(m), b.rng.standard_normal(m), b.rng.uniform(0.5, 2, m)]
    b.node1("BatchNormalization", [y] + [b.const(p.astype(np.float32), "bn") for p in params], FLOAT, out)


def pat_pad_into(b: Builder) -> None:
    """A constant Pad of the spatial axes in front of a Conv or pool (after a
    Relu, or not: MaxPool's own padding is -inf, not zero)."""
    x = b.pick_float(min_rank=3, max_rank=4)
    if b.p(0.4):
        x = b.node1("Relu", [x], FLOAT, b.shape(x))
    s = b.shape(x)
    sp = len(s) - 2
    before = [b.randint(0, 1) for _ in range(sp)]
    after = [b.randint(0, 1) for _ in range(sp)]
    pads = [0, 0] + before + [0, 0] + after
    ins = [x, b.ints(pads, "pads")]
    op = b.pick_one(["Conv", "Conv", "MaxPool", "AveragePool"])
    # MaxPool pads with -inf itself; a -inf Pad elsewhere would only make NaNs.
    value = 0.0 if b.p(0.8) else (float("-inf") if op == "MaxPool" and b.p(0.5) else 1.0)
    if value != 0.0 or b.p(0.4):
        ins.append(b.const(np.float32(value), "value"))
    ps = [s[0], s[1]] + [d + p + q for d, p, q in zip(s[2:], before, after)]
    y = b.node1("Pad", ins, FLOAT, ps)
    k = b.pick_one([2, 3]) if all(d >= 3 for d in ps[2:]) else 1
    attrs: Dict[str, object] = {"kernel_shape": [k] * sp}
    own = [b.randint(0, max(0, k - 2)) for _ in range(2 * sp)] if b.p(0.3) else [0] * (2 * sp)
    if any(own):
        attrs["pads"] = own
    out = [d + own[i] + own[i + sp] - k + 1 for i, d in enumerate(ps[2:])]
    if op == "Conv":
        w = b.rng.standard_normal((2, s[1]) + (k,) * sp) / math.sqrt(s[1] * k**sp)
        b.node1(op, [y, b.const(w.astype(np.float32), "w")], FLOAT, [s[0], 2] + out, **attrs)
    else:
        if op == "AveragePool" and b.p(0.5):
            attrs["count_include_pad"] = b.randint(0, 1)
        b.node1(op, [y], FLOAT, list(s[:2]) + out, **attrs)


def pat_conv_add(b: Builder) -> None:
    """A Conv, then an Add of a constant that is one value per channel (or
    one for all, or not per channel)."""
    x = b.pick_float(min_rank=3, max_rank=4)
    s = b.shape(x)
    sp, c = len(s) - 2, s[1]
    m = b.randint(1, 4)
    w = b.rng.standard_normal((m, c) + (1,) * sp) / math.sqrt(c)
    ins = [x, b.const(w.astype(np.float32), "w")]
    if b.p(0.4):
        ins.append(b.const(b.rng.standard_normal(m).astype(np.float32), "bias"))
    out = [s[0], m] + list(s[2:])
    y = b.node1("Conv", ins, FLOAT, out)
    ks = b.pick_one([(1, m) + (1,) * sp, (m,) + (1,) * sp, (), (1,), tuple(out[1:])])
    k = b.const(b.rng.standard_normal(ks).astype(np.float32), "k")
    b.node1("Add", [y, k] if b.p(0.5) else [k, y], FLOAT, broadcast(out, ks))


def pat_const_chain(b: Builder) -> None:
    """Mul by a constant twice, or Add twice."""
    x = b.pick_any()
    e, s = b.elem(x), b.shape(x)
    op = b.pick_one(["Mul", "Add"])
    y = x
    for _ in range(b.randint(2, 3)):
        cs = b.other_shape(s, larger=False)
        kind = "nonzero" if op == "Mul" and e == FLOAT else "random"
        y = elementwise_const(b, y, op, kind, b.p(0.5), cs)


def pat_identity_weight(b: Builder) -> None:
    """Identity nodes reading a stored weight, one weight read through two."""
    x = b.pick_any()
    e, s = b.elem(x), b.shape(x)
    cs = b.other_shape(s, larger=False)
    wgt = b.const(b.values(e, cs))
    for _ in range(b.randint(1, 2)):
        ident = b.node1("Identity", [wgt], e, cs, pool=b.p(0.2))
        b.node1(b.pick_one(["Add", "Mul"]), [x, ident], e, broadcast(s, cs))


# -- parallel branches around Split/Concat, and ScatterND pairs ------------


PARALLEL_OPS = ["Relu", "Sigmoid", "Mul", "Add", "Pow", "ReduceSum", "ReduceMax", "Gather"]


def _parallel_op(b: Builder, x: str, op: str, axis: int, shared: dict) -> str:
    """One branch's ``op`` on ``x``; ``shared`` holds what the branches share
    (a constant operand, reduce axes, gather indices), made on first use."""
    e, s = b.elem(x), list(b.shape(x))
    r = len(s)
    if op in ("Relu", "Sigmoid"):
        return b.node1(op, [x], e, s)
    if op in ("Mul", "Add", "Pow"):
        if "c" not in shared:
            cshape = [1 if (d == axis or b.p(0.5)) else s[d] for d in range(r)]
            if b.p(0.15):
                cshape[axis] = s[axis]  # does not broadcast on the joined axis
            kind = "nonzero" if op != "Pow" else "ones"
            shared["c"] = b.const(b.values(FLOAT, cshape, kind))
            shared["first"] = b.p(0.3) and op != "Pow"
        c = shared["c"]
        if b.p(0.1):  # its own constant, equal or not
            c = b.const(b.values(FLOAT, b.shape(c), "ones" if b.p(0.5) else "nonzero"))
        ins = [c, x] if shared["first"] else [x, c]
        out = broadcast(s, b.shape(c))
        return b.node1(op, ins, e, out)
    if op in ("ReduceSum", "ReduceMax"):
        if "axes" not in shared:
            ax = axis if b.p(0.5) else b.randint(0, r - 1)
            shared["axes_vals"] = [ax, (ax + 1) % r] if b.p(0.2) and r > 1 else [ax]
            shared["axes"] = b.ints(shared["axes_vals"])
            shared["keep"] = 0 if b.p(0.15) else 1
        axes = shared["axes_vals"]
        out = [1 if d in axes else s[d] for d in range(r)]
        if not shared["keep"]:
            out = [s[d] for d in range(r) if d not in axes]
        if op == "ReduceSum":
            return b.node1(op, [x, shared["axes"]], e, out, keepdims=shared["keep"])
        return b.node1(op, [x], e, out, keepdims=shared["keep"], axes=axes)  # an attribute before opset 18
    # Gather: on the joined axis each branch has its own indices.
    if "gaxis" not in shared:
        shared["gaxis"] = axis if b.p(0.5) else b.randint(0, r - 1)
    g = shared["gaxis"]
    if g != axis and "idx" in shared and b.p(0.8):
        idx, n = shared["idx"]
    else:
        n = b.randint(1, 3)
        idx = b.ints(b.rng.integers(-s[g], s[g], n), "gi")
        shared.setdefault("idx", (idx, n))
    out = list(s)
    out[g] = n
    return b.node1("Gather", [x, idx], e, out, axis=g)


def split_somewhere(b: Builder):
    """A float tensor split in two or more parts on a random axis: (tensor,
    its shape, the axis, the parts)."""
    x = b.pick_float(min_rank=1)
    s = b.shape(x)
    axis = b.randint(0, len(s) - 1)
    if s[axis] < 2:
        raise Skip("axis too short")
    parts = split(b, x, axis)
    if len(parts) < 2:
        raise Skip("one part")
    return x, s, axis, parts


def pat_parallel_after_split(b: Builder) -> None:
    """A Split whose parts each go through the same op (mostly), maybe back
    into a Concat."""
    _, _, axis, parts = split_somewhere(b)
    op = b.pick_one(PARALLEL_OPS)
    shared: dict = {}
    outs = []
    for k, t in enumerate(parts):
        if k > 0 and b.p(0.1):
            outs.append(b.node1("Neg", [t], FLOAT, b.shape(t)))
        else:
            outs.append(_parallel_op(b, t, op, axis, shared))
    if b.p(0.5) and len({len(b.shape(o)) for o in outs}) == 1 and axis < len(b.shape(outs[0])):
        b.node1("Concat", outs, FLOAT, _concat_shape(b, outs, axis), axis=axis)


def pat_parallel_before_concat(b: Builder) -> None:
    """Tensors of one shape (but on the joined axis) each through the same
    op, then joined by a Concat."""
    x = b.pick_float(min_rank=1)
    s = b.shape(x)
    axis = b.randint(0, len(s) - 1)
    ins = [x]
    for _ in range(b.randint(1, 3)):
        if b.p(0.5):
            ins.append(b.node1("Neg", [x], FLOAT, s))
        else:
            t = list(s)
            t[axis] = b.randint(1, 3)
            ins.append(b.const(b.values(FLOAT, t)) if b.p(0.2) else b.node1("Relu", [b.const(b.values(FLOAT, t))], FLOAT, t))
    op = b.pick_one(PARALLEL_OPS)
    shared: dict = {}
    outs = [_parallel_op(b, t, op, axis, shared) for t in ins]
    if len({len(b.shape(o)) for o in outs}) != 1 or axis >= len(b.shape(outs[0])):
        raise Skip("ranks differ")
    b.node1("Concat", outs, FLOAT, _concat_shape(b, outs, axis), axis=axis)


def pat_inner_math(b: Builder) -> None:
    """Split, scalar Add/Sub/Mul/Div on some parts, Concat back (maybe in
    another order, maybe on another axis)."""
    _, s, axis, parts = split_somewhere(b)
    op = b.pick_one(["Add", "Sub", "Mul", "Div"])
    outs = []
    for t in parts:
        if b.p(0.6):
            this = op if b.p(0.9) else b.pick_one(["Add", "Mul"])
            c = b.const(np.asarray(b.values(FLOAT, (1,) * b.randint(0, min(2, len(s))), "nonzero")))
            ins = [c, t] if b.p(0.2) else [t, c]
            outs.append(b.node1(this, ins, FLOAT, broadcast(b.shape(t), b.shape(c))))
        else:
            outs.append(t)
    if b.p(0.3):
        b.rng.shuffle(outs)
    cat_axis = axis if b.p(0.9) else b.randint(0, len(s) - 1)
    if len({tuple(d for i, d in enumerate(b.shape(o)) if i != cat_axis) for o in outs}) > 1:
        cat_axis = axis
    b.node1("Concat", outs, FLOAT, _concat_shape(b, outs, cat_axis), axis=cat_axis)


def pat_scatternd_pair(b: Builder) -> None:
    """A KV cache [1, H, S, D] written twice: token rows for some heads, the
    second write maybe at the same token, maybe for fewer heads; the data a
    graph input or a constant (often zeros); or a repeated write; or a read,
    add and write back."""
    H, S, D = b.randint(1, 3), b.randint(2, 5), b.randint(1, 4)
    shape = (1, H, S, D)
    partners = [n for n in b.pool if b.elem(n) == FLOAT and b.shape(n) == shape]
    base = b.const(b.values(FLOAT, shape, "zeros" if b.p(0.6) else "random"))
    if partners and b.p(0.5):
        cache = b.pick_one(partners)
    elif b.p(0.6):  # computed: a graph value spread over the constant
        m = b.node1("ReduceMean", [b.pick_float()], FLOAT, (), keepdims=0)
        cache = b.node1("Add", [m, base], FLOAT, shape)
    else:
        cache = base

    def rows(t, heads):
        return np.array([(0, h, t) for h in heads], np.int64).reshape(1, len(heads), 1, 3)

    def update(n):
        return b.const(b.values(FLOAT, (1, n, 1, D)))

    u = b.rng.random()
    if u < 0.6:
        t1 = b.randint(0, S - 1)
        t2 = t1 if b.p(0.15) else b.randint(0, S - 1)
        h1 = list(range(H))
        h2 = sorted(b.rng.choice(H, size=b.randint(1, H), replace=False).tolist()) if b.p(0.4) else list(range(H))
        red = b.pick_one(["none", "none", "none", "add"])
        attrs = {"reduction": red} if red != "none" else {}
        w1 = b.node1("ScatterND", [cache, b.ints(rows(t1, h1), "idx"), update(len(h1))], FLOAT, shape, **attrs)
        b.node1("ScatterND", [w1, b.ints(rows(t2, h2), "idx"), update(len(h2))], FLOAT, shape, **attrs)
    elif u < 0.8:
        idx = rows(b.randint(0, S - 1), range(H))
        upd = update(H)
        w1 = b.node1("ScatterND", [cache, b.ints(idx, "idx"), upd], FLOAT, shape)
        b.node1("ScatterND", [w1, b.ints(idx, "idx"), upd if b.p(0.8) else update(H)], FLOAT, shape)
    else:
        flat = b.node1("Reshape", [cache, b.ints([H * S, D])], FLOAT, (H * S, D))
        n = b.randint(1, min(3, H * S))
        gi = b.rng.choice(H * S, size=n, replace=b.p(0.2))
        si = gi if b.p(0.85) else b.rng.permutation(gi)
        g = b.node1("Gather", [flat, b.ints(gi, "gi")], FLOAT, (n, D), axis=0)
        y = b.const(b.values(FLOAT, (n, D) if b.p(0.9) else (1, D)))
        ins = [g, y] if b.p(0.5) else [y, g]
        a = b.node1("Add", ins, FLOAT, (n, D))
        b.node1("ScatterND", [flat, b.ints(np.asarray(si).reshape(n, 1), "si"), a], FLOAT, (H * S, D))


# -- Slice, Split and Concat restructuring ------------------------------------
# Pieces cut only to be joined again, slices side by side, slices of slices
# and of concats: what the restructuring rules look for, and near misses.


def full_slice(b: Builder, x: str, starts, ends, axes, steps, out: Sequence[int]) -> str:
    """A Slice with all five operands, axes as written (negative ones too)."""
    ins = [x, b.ints(starts, "starts"), b.ints(ends, "ends"), b.ints(axes, "axes"), b.ints(steps, "steps")]
    return b.node1("Slice", ins, b.elem(x), out)


def pat_slice_chain(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = list(b.shape(x))
    r = len(s)
    y, cur = x, list(s)
    for _ in range(b.randint(2, 3)):
        a = b.randint(0, r - 1)
        st, en, sp = slice_axis(b, cur[a]) if b.p(0.3) else (0, cur[a], 1)
        if sp == 1 and b.p(0.7):
            st = b.randint(0, cur[a] - 1)
            en = b.pick_one([b.randint(st + 1, cur[a]), cur[a] + b.randint(0, 4), INT64_MAX])
        n = slice_len(cur[a], st, en, sp)
        if n == 0:
            raise Skip("empty slice")
        cur = list(cur)
        cur[a] = n
        written = a - r if b.p(0.25) else a
        y = full_slice(b, y, [st], [en], [written], [sp], cur)


def pat_parallel_slices(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = list(b.shape(x))
    r = len(s)
    a = b.randint(0, r - 1)
    d = s[a]
    if d < 2:
        raise Skip("axis too short")
    cuts = [0] + sorted(int(c) for c in b.rng.choice(range(1, d), size=min(d - 1, b.randint(1, 3)), replace=False)) + [d]
    ranges = [(cuts[i], cuts[i + 1]) for i in range(len(cuts) - 1)]
    if b.p(0.3):  # a hole
        ranges.pop(b.randint(0, len(ranges) - 1))
    if b.p(0.3):  # an overlapping one
        st = b.randint(0, d - 1)
        ranges.append((st, b.randint(st + 1, d)))
    if b.p(0.2) and ranges:  # the same range twice
        ranges.append(ranges[0])
    b.rng.shuffle(ranges)
    for st, en in ranges:
        out = list(s)
        out[a] = en - st
        w_st = st - d if b.p(0.2) else st
        w_en = INT64_MAX if en == d and b.p(0.3) else en
        step = 2 if b.p(0.1) else 1
        if step != 1:
            out[a] = slice_len(d, st, en, step)
        full_slice(b, x, [w_st], [w_en], [a - r if b.p(0.2) else a], [step], out)


def pat_concat_slice(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = list(b.shape(x))
    a = b.randint(0, len(s) - 1)
    ins = [x] + [b.pick_one(concat_partners(b, x, a)) for _ in range(b.randint(1, 2))]
    b.rng.shuffle(ins)
    cat = b.node1("Concat", ins, b.elem(x), _concat_shape(b, ins, a), axis=a)
    bounds = [0]
    for n in ins:
        bounds.append(bounds[-1] + b.shape(n)[a])
    if b.p(0.3):  # a Split into the same pieces (or, now and then, others)
        sizes = [b.shape(n)[a] for n in ins]
        if b.p(0.2) and bounds[-1] > 1:
            sizes = random_parts(b, bounds[-1], min(len(ins), bounds[-1]))
        outs = [(b.elem(x), [sz if i == a else d for i, d in enumerate(b.shape(cat))]) for sz in sizes]
        pieces = b.node("Split", [cat, b.ints(sizes, "split")], outs, axis=a)
        if b.elem(x) == FLOAT:  # readers, so that the pieces are no graph outputs
            for p, (_, ps) in zip(pieces, outs):
                b.node1("Relu", [p], FLOAT, ps)
        return
    k = b.randint(0, len(ins) - 1)
    st, en = bounds[k], bounds[k + 1]
    if b.p(0.25):  # a near miss: part of a piece
        en = max(st + 1, en - 1)
    out = list(b.shape(cat))
    out[a] = en - st
    full_slice(b, cat, [st], [en], [a], [1], out)


def pat_split_concat_pairs(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = list(b.shape(x))
    r = len(s)
    a = b.randint(0, r - 1)
    if s[a] < 2:
        raise Skip("axis too short")
    k = b.randint(2, min(s[a], 4))
    sizes = [1] * s[a] if b.p(0.2) and s[a] <= 4 else random_parts(b, s[a], k)
    k = len(sizes)
    outs = [(b.elem(x), [sz if i == a else d for i, d in enumerate(s)]) for sz in sizes]
    written = a - r if b.p(0.2) else a
    parts = b.node("Split", [x, b.ints(sizes, "split")], outs, axis=written)
    u = b.rng.random()
    if u < 0.3:  # a run of pieces, maybe with an outside tensor
        lo = b.randint(0, k - 2)
        hi = b.randint(lo + 1, k - 1)
        ins = parts[lo : hi + 1]
        if b.p(0.5):
            ins = ins + [b.pick_one(concat_partners(b, parts[0], a))]
        b.node1("Concat", ins, b.elem(x), _concat_shape(b, ins, a), axis=written)
    elif u < 0.5:  # pieces joined on another axis
        a2 = b.randint(0, r - 1)
        if all(b.shape(p) == b.shape(parts[0]) for p in parts):
            b.node1("Concat", parts, b.elem(x), _concat_shape(b, parts, a2), axis=a2)
    elif u < 0.65:  # a Split of a piece
        p = b.randint(0, k - 1)
        if sizes[p] >= 2:
            sub = random_parts(b, sizes[p], 2)
            b.node("Split", [parts[p], b.ints(sub, "split")],
                   [(b.elem(x), [sz if i == a else d for i, d in enumerate(s)]) for sz in sub], axis=written)
    elif u < 0.8:  # the same Split of another tensor, pieces combined pairwise
        partners = [n for n in b.pool if b.shape(n) == tuple(s) and b.elem(n) == b.elem(x) and n != x]
        if partners and b.elem(x) == FLOAT:
            y = b.pick_one(partners)
            parts2 = b.node("Split", [y, b.ints(sizes, "split")], outs, axis=written)
            op = b.pick_one(["Add", "Mul", "Sub", "Div"]) if k == 1 or b.p(0.3) else b.pick_one(["Add", "Mul"])
            if op == "Div":
                raise Skip("division by a random tensor")
            for p1, p2, o in zip(parts, parts2, outs):
                b.node1(op, [p1, p2] if b.p(0.5) else [p2, p1], FLOAT, o[1])
    else:  # a Concat undone by a Split, or pieces shuffled back together
        if b.p(0.5):
            cat = b.node1("Concat", parts, b.elem(x), s, axis=written)
            b.node("Split", [cat, b.ints(sizes, "split")], outs, axis=written)
        else:
            order = list(parts)
            b.rng.shuffle(order)
            b.node1("Concat", order, b.elem(x), _concat_shape(b, order, a), axis=written)


def pat_concat_chain(b: Builder) -> None:
    x = b.pick_any(min_rank=1)
    s = list(b.shape(x))
    a = b.randint(0, len(s) - 1)
    ins = [x, b.pick_one(concat_partners(b, x, a))]
    c1 = b.node1("Concat", ins, b.elem(x), _concat_shape(b, ins, a), axis=a)
    ins2 = [c1, x] if b.p(0.5) else [x, c1, c1]
    b.node1("Concat", ins2, b.elem(x), _concat_shape(b, ins2, a), axis=a - len(s) if b.p(0.2) else a)


def pat_gather_restructure(b: Builder) -> None:
    """Gathers that fold into their neighbours: of a Gather on the same axis,
    on the channels of a Conv, on two axes a Reshape merges; and pools that
    only pick every n-th row."""
    u = b.rng.random()
    if u < 0.3:
        x = b.pick_any(min_rank=1)
        s = b.shape(x)
        a = b.randint(0, len(s) - 1)
        ind = gather_indices(b, s[a])
        if ind.ndim == 0:
            ind = ind.reshape(1)
        out = list(s[:a]) + list(ind.shape) + list(s[a + 1 :])
        y = b.node1("Gather", [x, b.ints(ind, "idx")], b.elem(x), out, axis=a)
        ind2 = gather_indices(b, out[a])
        out2 = list(out[:a]) + list(ind2.shape) + list(out[a + 1 :])
        b.node1("Gather", [y, b.ints(ind2, "idx")], b.elem(x), out2, axis=a - len(out) if b.p(0.2) else a)
    elif u < 0.55:
        x = b.pick_float(rank=4)
        s = b.shape(x)
        m = b.randint(2, 6)
        k = b.pick_one([1, 3])
        w = b.rng.standard_normal((m, s[1], k, k)).astype(np.float32) / 3
        ins = [x, b.const(w, "w")] + ([b.const(b.rng.standard_normal(m).astype(np.float32), "bias")] if b.p(0.5) else [])
        c = b.node1("Conv", ins, FLOAT, [s[0], m, s[2], s[3]], kernel_shape=[k, k], pads=[k // 2] * 4)
        ind = b.rng.integers(-m, m, b.randint(1, m + 1)).astype(np.int64)
        b.node1("Gather", [c, b.ints(ind, "idx")], FLOAT, [s[0], len(ind), s[2], s[3]], axis=1)
    elif u < 0.75:
        x = b.pick_any(min_rank=2)
        s = list(b.shape(x))
        a = b.randint(0, len(s) - 2)
        i0 = b.rng.choice(s[a], size=b.randint(1, s[a]), replace=False).astype(np.int64)
        i1 = b.rng.choice(s[a + 1], size=b.randint(1, s[a + 1]), replace=False).astype(np.int64)
        first, second = (a, a + 1) if b.p(0.5) else (a + 1, a)
        ia, ib = (i0, i1) if first == a else (i1, i0)
        o1 = list(s)
        o1[first] = len(ia)
        g = b.node1("Gather", [x, b.ints(ia, "idx")], b.elem(x), o1, axis=first)
        o2 = list(o1)
        o2[second] = len(ib)
        g2 = b.node1("Gather", [g, b.ints(ib, "idx")], b.elem(x), o2, axis=second)
        target = o2[:a] + [o2[a] * o2[a + 1]] + o2[a + 2 :]
        reshape(b, g2, target)
    else:
        x = b.pick_float(rank=4)
        s = b.shape(x)
        st = b.pick_one([[1, 2], [2, 1], [1, 3]])
        out = [s[0], s[1], (s[2] - 1) // st[0] + 1, (s[3] - 1) // st[1] + 1]
        b.node1(b.pick_one(["MaxPool", "AveragePool"]), [x], FLOAT, out, kernel_shape=[1, 1], strides=st, pads=[0] * 4)


def pat_split_relocation(b: Builder) -> None:
    """A Split behind a Reshape: after a Transpose, or after a Conv on a
    spatial axis of a map whose channels change."""
    if b.p(0.5):
        x = b.pick_any(min_rank=3)
        s = list(b.shape(x))
        r = len(s)
        perm = random_perm(b, r)
        s1 = [s[p] for p in perm]
        k = b.randint(0, r - 2)
        s2 = s1[:k] + [s1[k] * s1[k + 1]] + s1[k + 2 :]
        t = b.node1("Transpose", [x], b.elem(x), s1, perm=perm)
        y = reshape(b, t, s2)
        d = s2[k]
        if d < 2:
            raise Skip("axis too short")
        # Units of the leading merged axis are what the Split can follow
        # across the Transpose; other unit sizes are near misses.
        g = s1[k + 1] if b.p(0.6) else b.pick_one([g for g in range(1, d + 1) if d % g == 0])
        u = d // g
        if u < 2:
            raise Skip("one unit")
        units = random_parts(b, u, b.randint(2, min(u, 3))) if b.p(0.5) else [1] * u
        sizes = [n * g for n in units]
        outs = [(b.elem(x), [sz if i == k else dd for i, dd in enumerate(s2)]) for sz in sizes]
        pieces = b.node("Split", [y, b.ints(sizes, "split")], outs, axis=k)
        for pc, (e, ps) in zip(pieces, outs):
            if e == FLOAT:
                b.node1("Relu", [pc], FLOAT, ps)
    else:
        x = b.pick_float(rank=4)
        s = b.shape(x)
        m = b.pick_one([8, 16, 32])
        w = b.rng.standard_normal((m, s[1], 1, 1)).astype(np.float32) / 3
        c = b.node1("Conv", [x, b.const(w, "w")], FLOAT, [s[0], m, s[2], s[3]])
        rate = 2
        target = [s[0], m // rate, s[2] * rate, s[3]] if b.p(0.5) else [s[0], m // rate, s[2], s[3] * rate]
        y = reshape(b, c, target)
        a = b.pick_one([2, 3])
        if target[a] % rate:
            raise Skip("axis does not divide")
        sizes = [target[a] // rate] * rate
        outs = [(FLOAT, [sz if i == a else dd for i, dd in enumerate(target)]) for sz in sizes]
        for pc, (_, ps) in zip(b.node("Split", [y, b.ints(sizes, "split")], outs, axis=a), outs):
            b.node1("Relu", [pc], FLOAT, ps)

# ---- layout around Split and Concat: Transpose and Reshape neighbours ----------

BRANCH_ACTS = ["Relu", "Sigmoid", "Tanh", "LeakyRelu", "Softsign"]
BRANCH_ALUS = ["Add", "Mul", "Sub", "Max"]


def pat_split_branches_tp(b: Builder) -> None:
    """Transpose -> Split -> per-piece activation (or scalar arithmetic) ->
    joined -> Transpose back; near misses: another perm back, a piece or the
    join read outside, a constant per channel inside, an outside operand."""
    x = b.pick_float(min_rank=2, max_rank=4)
    s = b.shape(x)
    r = len(s)
    perm = random_perm(b, r)
    s1 = [s[p] for p in perm]
    t = b.node1("Transpose", [x], FLOAT, s1, perm=perm)
    a = b.randint(0, r - 1)
    u = b.rng.random()
    if u < 0.6 and s1[a] % 2 == 0:  # split_activation_alu, two equal pieces joined
        part = [d // 2 if i == a else d for i, d in enumerate(s1)]
        p0, p1 = b.node("Split", [t, b.ints([s1[a] // 2] * 2, "split")], [(FLOAT, part)] * 2, axis=a)
        r0 = b.node1(b.pick_one(BRANCH_ACTS), [p0], FLOAT, part)
        r1 = b.node1(b.pick_one(BRANCH_ACTS), [p1], FLOAT, part)
        other = r1
        if b.p(0.1):
            other = tensor_of(b, part)
        j = b.node1(b.pick_one(BRANCH_ALUS), [r0, other], FLOAT, part)
        if b.p(0.1):
            b.node1("Neg", [p1], FLOAT, part)
    else:  # split_alu_activation on one piece, with a constant inside
        part = list(s1)
        (p0,) = b.node("Split", [t, b.ints([s1[a]], "split")], [(FLOAT, part)], axis=a)
        cshape = [1] * r if b.p(0.7) else [d if i == a else 1 for i, d in enumerate(part)]
        m = b.node1(b.pick_one(BRANCH_ALUS), [p0, b.const(b.values(FLOAT, cshape, "nonzero"))], FLOAT, part)
        j = b.node1(b.pick_one(BRANCH_ACTS), [m], FLOAT, part)
    back = inverse_perm(perm) if b.p(0.8) else random_perm(b, r)
    b.node1("Transpose", [j], FLOAT, [b.shape(j)[p] for p in back], perm=back)
    if b.p(0.25):
        b.node1("Neg", [j], FLOAT, b.shape(j))


def merge_axes(s: Sequence[int], m: int) -> List[int]:
    return list(s[:m]) + [s[m] * s[m + 1]] + list(s[m + 2 :])


def _pieces_to_merge(b: Builder):
    """A rank r of 3 or 4, a base shape, the joined axis a, the first of the
    two neighbouring axes m, m+1 a Reshape merges, and 2-3 piece sizes."""
    r = b.randint(3, 4)
    base = [b.randint(1, 4) for _ in range(r)]
    a = b.randint(0, r - 1)
    m = b.randint(0, r - 2)
    k = b.randint(2, 3)
    sizes = [b.randint(1, 3) for _ in range(k)]
    return r, base, a, m, sizes


def pat_reshape_around_concat(b: Builder) -> None:
    """Pieces reshaped alike (two axes merged) -> Concat -> Reshape back; the
    merge may cross the joined axis (then a Gather repairs the order); near
    misses: a plain piece, a second Reshape in a row, another shape after."""
    _, base, a, m, sizes = _pieces_to_merge(b)
    ins = []
    for c in sizes:
        ps = [c if i == a else d for i, d in enumerate(base)]
        x = tensor_of(b, ps)
        if b.p(0.1):
            ins.append(b.node1("Relu", [tensor_of(b, merge_axes(ps, m))], FLOAT, merge_axes(ps, m)))
        else:
            ins.append(reshape(b, x, merge_axes(ps, m)))
    ma = a if a < m else (m if a in (m, m + 1) else a - 1)
    if a in (m, m + 1) and b.p(0.5):
        raise Skip("merged axis holds the join only on its outer part")
    cat = b.node1("Concat", ins, FLOAT, _concat_shape(b, ins, ma), axis=ma)
    full = [sum(sizes) if i == a else d for i, d in enumerate(base)]
    if b.p(0.85):
        y = reshape(b, cat, full)
        if b.p(0.1):
            reshape(b, y, [prod(full)])
    if b.p(0.2):
        b.node1("Neg", [cat], FLOAT, b.shape(cat))


def pat_reshape_around_split(b: Builder) -> None:
    """x -> Reshape (two axes merged) -> Split -> each piece reshaped back;
    near misses: a piece read plainly, a piece reshaped to a graph output,
    another shape."""
    _, base, a, m, sizes = _pieces_to_merge(b)
    full = [sum(sizes) if i == a else d for i, d in enumerate(base)]
    ma = a if a < m else (m if a in (m, m + 1) else a - 1)
    if a in (m, m + 1) and (m + 1 - a) == 0 and base[m] != 1:
        raise Skip("pieces are not runs of the merged axis")
    x = tensor_of(b, full)
    y = reshape(b, x, merge_axes(full, m))
    mult = full[m + 1] if a == m else 1
    outs = [(FLOAT, [(c * mult if a == m else c) if i == ma else d for i, d in enumerate(merge_axes(full, m))])
            for c in sizes]
    pieces = b.node("Split", [y, b.ints([o[1][ma] for o in outs], "split")], outs, axis=ma)
    for pc, c in zip(pieces, sizes):
        ps = [c if i == a else d for i, d in enumerate(base)]
        if b.p(0.85):
            z = reshape(b, pc, ps)
            if b.p(0.5):
                b.node1("Relu", [z], FLOAT, ps)
        else:
            b.node1("Neg", [pc], FLOAT, b.shape(pc))


def pat_split_branch_layouts(b: Builder) -> None:
    """Split -> per-branch Transpose or Reshape, element-wise ops, and back
    -> Concat: the multi-branch block."""
    x = b.pick_float(rank=4)
    s = b.shape(x)
    if s[1] < 2:
        raise Skip("channels too few")
    parts = split(b, x, 1)
    outs = []
    for p in parts:
        ps = list(b.shape(p))
        if b.p(0.5):
            perm = [0, 2, 3, 1]
            t = b.node1("Transpose", [p], FLOAT, [ps[q] for q in perm], perm=perm)
            t = b.node1(b.pick_one(BRANCH_ACTS), [t], FLOAT, b.shape(t))
            back = inverse_perm(perm) if b.p(0.9) else perm
            t = b.node1("Transpose", [t], FLOAT, [b.shape(t)[q] for q in back], perm=back)
        else:
            t = reshape(b, p, [ps[0], ps[1], ps[2] * ps[3]])
            t = b.node1(b.pick_one(BRANCH_ACTS), [t], FLOAT, b.shape(t))
            t = reshape(b, t, ps) if b.p(0.9) else reshape(b, t, [ps[0], ps[1] * ps[2], ps[3]])
        outs.append(t)
    if len({len(b.shape(o)) for o in outs}) == 1 and len(outs) > 1:
        if all(list(b.shape(o))[2:] == list(b.shape(outs[0]))[2:] and b.shape(o)[0] == b.shape(outs[0])[0] for o in outs):
            b.node1("Concat", outs, FLOAT, _concat_shape(b, outs, 1), axis=1)


def pat_fused_qkv(b: Builder) -> None:
    """Attention heads from one fused QKV projection: Split, per-path head
    Reshape and Transpose, scores, Softmax, weighted V. Near misses: the heads
    on the split axis, a per-channel scale, a second reader of a piece."""
    x = b.pick_float(min_rank=2, max_rank=3)
    s = b.shape(x)
    seq, e = prod(s[:-1]), s[-1]
    heads, d = b.randint(1, 3), b.randint(2, 4)
    c = heads * d
    layout = b.pick_one(["seq_heads", "seq_heads", "batch_seq_heads", "flat"])
    x = reshape(b, x, [seq, e] if layout == "flat" else [1, seq, e])
    fused = [seq, 3 * c] if layout == "flat" else [1, seq, 3 * c]
    wgt = b.const((b.rng.standard_normal((e, 3 * c)) / np.sqrt(e)).astype(np.float32), "w")
    if layout == "flat" and b.p(0.5):
        qkv = b.node1("Gemm", [x, wgt], FLOAT, fused)
    else:
        qkv = b.node1("MatMul", [x, wgt], FLOAT, fused)
    axis = len(fused) - 1
    piece = fused[:-1] + [c]
    q, k, v = b.node("Split", [qkv, b.ints([c, c, c], "split")], [(FLOAT, piece)] * 3, axis=axis)
    if b.p(0.4):
        scale = np.float32(1 / np.sqrt(d)) if b.p(0.7) else b.rng.uniform(0.5, 1, c).astype(np.float32)
        q = b.node1("Mul", [q, b.const(scale, "scale")], FLOAT, piece)
    if b.p(0.1):
        b.node1("Neg", [k], FLOAT, piece)
    if layout == "batch_seq_heads":
        head, perm_q, perm_k = [1, seq, heads, d], [0, 2, 1, 3], [0, 2, 3, 1]
    else:
        head, perm_q, perm_k = [seq, heads, d], [1, 0, 2], [1, 2, 0]
    tq = b.node1("Transpose", [reshape(b, q, head)], FLOAT, [head[p] for p in perm_q], perm=perm_q)
    tk = b.node1("Transpose", [reshape(b, k, head)], FLOAT, [head[p] for p in perm_k], perm=perm_k)
    tv = b.node1("Transpose", [reshape(b, v, head)], FLOAT, [head[p] for p in perm_q], perm=perm_q)
    sq = b.shape(tq)
    att = b.node1("MatMul", [tq, tk], FLOAT, list(sq[:-1]) + [sq[-2]], pool=False)
    prob = b.node1("Softmax", [att], FLOAT, b.shape(att), axis=-1)
    ctx = b.node1("MatMul", [prob, tv], FLOAT, sq)
    back = b.node1("Transpose", [ctx], FLOAT, [sq[p] for p in perm_q], perm=perm_q)
    reshape(b, back, piece)


def pat_attention_conv_gather(b: Builder) -> None:
    """Conv, Reshape of its channels into groups, Split, and a Gather that
    reorders one piece. Near misses: a Gather that repeats a channel or
    works on another axis, grouped filters, a batch above 1."""
    x = b.pick_float(rank=4)
    s = b.shape(x)
    half = b.pick_one([2, 3, 4])
    m = 2 * half
    group = 2 if s[1] % 2 == 0 and b.p(0.15) else 1
    wgt = (b.rng.standard_normal((m, s[1] // group, 1, 1)) / 2).astype(np.float32)
    ins = [x, b.const(wgt, "w")] + ([b.const(b.values(FLOAT, [m]), "b")] if b.p(0.5) else [])
    conv = b.node1("Conv", ins, FLOAT, [s[0], m, s[2], s[3]], group=group)
    target = [2 * s[0], half, s[2], s[3]]
    r = reshape(b, conv, target)
    sizes = random_parts(b, half, 2)
    outs = [(FLOAT, [2 * s[0], n, s[2], s[3]]) for n in sizes]
    pieces = b.node("Split", [r, b.ints(sizes, "split")], outs, axis=1)
    i = b.randint(0, len(pieces) - 1)
    n = sizes[i]
    on_batch = b.p(0.1)
    dim = 2 * s[0] if on_batch else n
    idx = [int(j) for j in b.rng.permutation(dim)]
    if b.p(0.15):
        idx[0] = idx[-1]
    if b.p(0.2):
        idx = [j - dim if b.p(0.5) else j for j in idx]
    gs = list(outs[i][1])
    gs[0 if on_batch else 1] = dim
    b.node1("Gather", [pieces[i], b.ints(idx, "idx")], FLOAT, gs, axis=0 if on_batch else 1)


def pat_ffn_reshape(b: Builder) -> None:
    """A feed-forward block in its own shape: Reshape in, MatMul and Relu,
    Reshape back, the residual Add, a Reshape behind it. Near misses: a third
    reader of the block's input, a second reader of the sum."""
    x = b.pick_float(rank=4)
    s = list(b.shape(x))
    top = b.node1("Relu", [x], FLOAT, s)
    inner = [s[0] * s[1], s[2], s[3]] if b.p(0.6) else [s[0], s[1] * s[2], s[3]]
    h = reshape(b, top, inner)
    f = b.node1("MatMul", [h, b.const((b.rng.standard_normal((s[3], s[3])) / 2).astype(np.float32), "w")],
                FLOAT, inner, pool=False)
    f = b.node1("Relu", [f], FLOAT, inner, pool=False)
    tail = reshape(b, f, s)
    a = b.node1("Add", [top, tail] if b.p(0.5) else [tail, top], FLOAT, s)
    if b.p(0.1):
        b.node1("Neg", [top], FLOAT, s)
    if b.p(0.1):
        b.node1("Neg", [a], FLOAT, s)
    reshape(b, a, [s[0], s[1] * s[2] * s[3]])


def _regroup(b: Builder, s: Sequence[int]) -> Optional[Shape]:
    """A Reshape target of the same elements: a 1 put in or taken out, two
    neighbouring axes merged, or one axis cut in two."""
    s = list(s)
    u = b.rng.random()
    if u < 0.3 and len(s) < MAX_RANK:
        i = b.randint(0, len(s))
        return tuple(s[:i] + [1] + s[i:])
    if u < 0.45 and 1 in s and len(s) > 1:
        i = s.index(1)
        return tuple(s[:i] + s[i + 1:])
    if u < 0.75 and len(s) > 1:
        i = b.randint(0, len(s) - 2)
        return tuple(s[:i] + [s[i] * s[i + 1]] + s[i + 2:])
    cuts = [(i, f) for i, d in enumerate(s) for f in range(2, d) if d % f == 0]
    if not cuts or len(s) >= MAX_RANK:
        return None
    i, f = b.pick_one(cuts)
    return tuple(s[:i] + [f, s[i] // f] + s[i + 1:])


def pat_reshape_around_elementwise(b: Builder) -> None:
    x = b.pick_float(min_rank=1)
    s = b.shape(x)
    mid = _regroup(b, s)
    if mid is None:
        raise Skip("no regrouping")
    m = reshape(b, x, mid)
    op = b.pick_one(["Add", "Add", "Mul", "Div"])
    u = b.rng.random()
    if u < 0.55 or op == "Div":  # a constant, maybe broadcast, single or of lower rank
        cs = [1 if b.p(0.35) else d for d in mid]
        if b.p(0.15):
            cs = [1]
        elif b.p(0.1) and len(cs) > 1:
            cs = cs[1:]
        c = b.rng.standard_normal(cs).astype(np.float32)
        other = b.const(np.abs(c) + 0.5 if op == "Div" else c)
    elif u < 0.7:
        other = m  # the same operand twice
    elif u < 0.85:  # from a node that is no Reshape
        other = b.node1("Sigmoid", [reshape(b, x, mid)], FLOAT, mid)
    else:  # from a Reshape of another tensor
        other = reshape(b, b.node1("Sigmoid", [x], FLOAT, s), mid)
    ins = [m, other] if b.p(0.85) else [other, m]
    out = broadcast(mid, b.shape(other))
    a = b.node1(op, ins, FLOAT, out)
    if b.p(0.2):
        b.node1("Relu", [a], FLOAT, out)  # a second reader
    back = s if b.p(0.75) else _regroup(b, out)
    if back is None or prod(back) != prod(out):
        raise Skip("no way back")
    reshape(b, a, back)


def pat_reshape_pair_into_elementwise(b: Builder) -> None:
    x = b.pick_float(min_rank=1)
    s = b.shape(x)
    mid = _regroup(b, s)
    if mid is None:
        raise Skip("no regrouping")
    partners = [n for n in b.pool if b.shape(n) == s and b.elem(n) == FLOAT and n != x]
    y = b.pick_one(partners) if partners and b.p(0.5) else b.node1("Sigmoid", [x], FLOAT, s)
    if b.p(0.2):  # same elements, other layout in front: a near miss
        other = _regroup(b, s)
        if other is not None:
            y = reshape(b, y, other)
    r0, r1 = reshape(b, x, mid), reshape(b, y, mid)
    a = b.node1(b.pick_one(["Add", "Mul"]), [r0, r1], FLOAT, mid)
    if b.p(0.15):
        b.node1("Relu", [r1], FLOAT, mid)
    if b.p(0.5):
        b.node1("Relu", [a], FLOAT, mid)


def pat_mul_pair_add(b: Builder) -> None:
    x = b.pick_float(min_rank=1)
    s = b.shape(x)
    partners = [n for n in b.pool if b.shape(n) == s and b.elem(n) == FLOAT and n != x]
    y = b.pick_one(partners) if partners and b.p(0.5) else b.node1("Tanh", [x], FLOAT, s)
    cs = [1 if b.p(0.5) else d for d in s] if b.p(0.8) else [1]
    c = b.rng.standard_normal(cs).astype(np.float32)
    u = b.rng.random()
    c2 = c.copy() if u < 0.7 else (c + 1 if u < 0.85 else c.reshape([1] + list(c.shape)))
    out0, out1 = broadcast(s, c.shape), broadcast(s, c2.shape)
    m0 = b.node1("Mul", [x, b.const(c)], FLOAT, out0)
    c2n = b.const(c2)
    m1 = b.node1("Mul", [c2n, y] if b.p(0.5) else [y, c2n], FLOAT, out1)
    if b.p(0.15):
        b.node1("Relu", [m1], FLOAT, out1)
    b.node1("Add", [m0, m1], FLOAT, broadcast(out0, out1))


def pat_layout_around_concat_split(b: Builder) -> None:
    x = b.pick_float(min_rank=2)
    s = list(b.shape(x))
    r = len(s)
    axes = [i for i in range(r) if s[i] >= 2]
    if not axes:
        raise Skip("nothing to cut")
    a = b.pick_one(axes)
    sizes = random_parts(b, s[a], b.randint(2, min(s[a], 4)))
    outs = [(FLOAT, [sz if i == a else d for i, d in enumerate(s)]) for sz in sizes]
    pieces = b.node("Split", [x, b.ints(sizes, "split")], outs, axis=a)
    u = b.rng.random()
    if u < 0.55:  # each piece gets a 1 at the same place (one maybe elsewhere), then maybe a Concat
        j = b.randint(0, r)
        if r >= MAX_RANK:
            raise Skip("rank")
        rs = []
        for k, (_, ps) in enumerate(outs):
            jj = b.randint(0, r) if b.p(0.1) else j
            if b.p(0.15) and u >= 0.3:
                continue  # a piece nobody reads
            rs.append(reshape(b, pieces[k], ps[:jj] + [1] + ps[jj:]))
        if u < 0.3 and len(rs) == len(pieces):
            a2 = a + 1 if j <= a else a
            if any(b.shape(t)[:a2] + b.shape(t)[a2 + 1:] != b.shape(rs[0])[:a2] + b.shape(rs[0])[a2 + 1:] for t in rs):
                raise Skip("pieces differ")
            cat = b.node1("Concat", rs, FLOAT, _concat_shape(b, rs, a2), axis=a2)
            if b.p(0.5):
                back = _regroup(b, b.shape(cat))
                if back is not None:
                    reshape(b, cat, back)
    else:  # pieces transposed, mostly alike
        perm = [int(p) for p in b.rng.permutation(r)]
        for k, (_, ps) in enumerate(outs):
            pk = [int(p) for p in b.rng.permutation(r)] if b.p(0.25) else perm
            t = transpose(b, pieces[k], pk)
            if b.p(0.2):
                b.node1("Relu", [t], FLOAT, b.shape(t))


# -- Small fusions ----------------------------------------------------------------
# Focus stems (the phases of a 2x2 grid joined on the channels), two slices
# of one axis joined again (one perhaps scaled), Min/Max bounds, x*c1 + x*c2,
# and Casts to or from bool ahead of an Equal: what the small fusions fold,
# and near misses (phases out of order, slices that stop short, bounds the
# wrong way round, constants of other shapes, comparisons the fold would change).


def _slice_len(d: int, start: int, end: int, step: int) -> int:
    return len(range(start, min(end, d), step))


def pat_focus_stem(b: Builder) -> None:
    try:  # a map whose spatial sizes are even, or else a new image input
        x = b.pick(lambda n: len(b.shape(n)) == 4 and all(d % 2 == 0 for d in b.shape(n)[1:]), floats=True)
    except Skip:
        if len(b.inputs) > 3:
            raise
        x = b.add_input(FLOAT, [b.randint(1, 2), b.randint(1, 4), 2 * b.randint(1, 3), 2 * b.randint(1, 3)])
    s = list(b.shape(x))
    last = b.p(0.3)  # channels last
    ha, wa, ca = (1, 2, 3) if last else (2, 3, 1)
    step = 3 if b.p(0.1) else 2
    if s[ha] % step or s[wa] % step:
        raise Skip("odd map")
    end_h = b.pick_one([INT64_MAX, s[ha], s[ha] + 3]) if b.p(0.9) else s[ha] - 1
    end_w = b.pick_one([INT64_MAX, s[wa], s[wa] + 3]) if b.p(0.9) else s[wa] - 1
    phases = [(0, 0), (1, 0), (0, 1), (1, 1)]
    if b.p(0.15):
        phases = [phases[0], phases[2], phases[1], phases[3]]
    cat_axis = ca if b.p(0.9) else 0

    def out_shape(h0, w0):
        o = list(s)
        o[ha] = _slice_len(s[ha], h0, end_h, step)
        o[wa] = _slice_len(s[wa], w0, end_w, step)
        return o

    if step == 2 and b.p(0.5):  # two stages: rows, then columns
        rows = {h0: full_slice(b, x, [h0], [end_h], [ha], [step],
                               [_slice_len(s[ha], h0, end_h, step) if i == ha else d for i, d in enumerate(s)])
                for h0 in (0, 1)}
        parts = [full_slice(b, rows[h0], [w0], [end_w], [wa], [step], out_shape(h0, w0)) for h0, w0 in phases]
    else:
        parts = [full_slice(b, x, [h0, w0], [end_h, end_w], [ha, wa], [step, step], out_shape(h0, w0))
                 for h0, w0 in phases]
    shapes = [b.shape(p) for p in parts]
    if any(sh[i] != shapes[0][i] for sh in shapes for i in range(4) if i != cat_axis):
        raise Skip("phases of other sizes")
    out = list(shapes[0])
    out[cat_axis] = sum(sh[cat_axis] for sh in shapes)
    b.node1("Concat", parts, FLOAT, out, axis=cat_axis)


def pat_slice_select(b: Builder) -> None:
    x = b.pick_float(rank=4)
    s = list(b.shape(x))
    a = b.pick_one([1, 1, 2, 3, 0])
    d = s[a]
    if d < 2:
        raise Skip("axis too short")
    parts = []
    for _ in range(2):
        st = b.randint(0, d - 1)
        en = b.pick_one([b.randint(st + 1, d), d + 5, INT64_MAX])
        sp = b.pick_one([1, 1, 2])
        o = list(s)
        o[a] = _slice_len(d, st, en, sp)
        parts.append(full_slice(b, x, [st], [en], [a], [sp], o))
    scaled = b.pick_one([[], [0], [1], [0, 1]] if b.p(0.2) else [[], [0], [1]])
    for k in scaled:
        sh = b.shape(parts[k])
        c = np.float32(b.pick_one([2.0, -0.5, 3.0])) if b.p(0.85) else b.values(FLOAT, (sh[3],), "nonzero")
        ins = [parts[k], b.const(c)] if b.p(0.5) else [b.const(c), parts[k]]
        parts[k] = b.node1("Mul", ins, FLOAT, sh)
    cat_axis = a if b.p(0.9) else b.pick_one([i for i in range(4) if i != a])
    sh0, sh1 = b.shape(parts[0]), b.shape(parts[1])
    if any(sh0[i] != sh1[i] for i in range(4) if i != cat_axis):
        raise Skip("parts of other sizes")
    out = list(sh0)
    out[cat_axis] = sh0[cat_axis] + sh1[cat_axis]
    b.node1("Concat", parts, FLOAT, out, axis=cat_axis)


def pat_min_max_near(b: Builder) -> None:
    """Min/Max pairs the Clip fold must leave: bounds the wrong way round,
    a bound of several values, the bound computed, the middle read twice."""
    x = b.pick_float(min_rank=1)
    s = b.shape(x)
    first, second = ("Min", "Max") if b.p(0.5) else ("Max", "Min")
    u = b.rng.random()
    c_first = b.const(np.float32(b.pick_one([0.0, 0.5])))
    if u < 0.3:  # lower above upper
        c_second = b.const(np.float32(1.0 if first == "Min" else -1.0))
    elif u < 0.6:
        c_second = b.const(b.values(FLOAT, (s[-1],)))
    elif u < 0.8:
        c_second = b.node1("Tanh", [x], FLOAT, s)
    else:
        c_second = b.const(np.float32(-2.0 if first == "Min" else 2.0))
    y = b.node1(first, [x, c_first], FLOAT, s)
    out = broadcast(s, b.shape(c_second))
    b.node1(second, [y, c_second] if b.p(0.5) else [c_second, y], FLOAT, out)
    if u >= 0.8:
        b.node1("Neg", [y], FLOAT, s)  # the middle has a second reader


def pat_mul_add_fold(b: Builder) -> None:
    x = b.pick_float()
    s = b.shape(x)
    cs = b.other_shape(s, larger=False)
    c1 = b.const(b.values(FLOAT, cs))
    c2 = b.const(b.values(FLOAT, cs if b.p(0.85) else (1,) + tuple(cs)))
    m1 = b.node1("Mul", [x, c1] if b.p(0.5) else [c1, x], FLOAT, broadcast(s, cs))
    u = b.rng.random()
    other = x if u < 0.75 else b.pick(lambda n: b.shape(n) == s, floats=True)
    op = "Mul" if u < 0.9 else "Add"
    m2 = b.node1(op, [other, c2] if b.p(0.5) else [c2, other], FLOAT, broadcast(s, b.shape(c2)))
    b.node1("Add", [m1, m2] if b.p(0.5) else [m2, m1], FLOAT, broadcast(b.shape(m1), b.shape(m2)))


def pat_cast_equal(b: Builder) -> None:
    """A Cast to or from bool compared with a constant, read back as float."""
    x = b.pick_float()
    s = b.shape(x)
    cs = s if b.p(0.5) else ()
    if b.p(0.5):  # integers to bool: against false it folds, against true it must not
        xi = b.node1("Cast", [b.node1("Round", [x], FLOAT, s)], INT64, s, to=INT64)
        m = b.node1("Cast", [xi], BOOL, s, to=BOOL)
        c = b.const(np.zeros(cs, bool) if b.p(0.7) else np.ones(cs, bool))
    else:  # bool to numbers: against 0s and 1s it folds, against 0.5 it must not
        bx = b.node1("Greater", [x, b.const(np.float32(0.0))], BOOL, s)
        to = b.pick_one([FLOAT, INT64])
        m = b.node1("Cast", [bx], to, s, to=to)
        vals = b.rng.integers(0, 2, cs) if b.p(0.8) else np.full(cs, 0.5 if to == FLOAT else 2)
        c = b.const(np.asarray(vals, np.float32 if to == FLOAT else np.int64))
    eq = b.node("Equal", [m, c] if b.p(0.8) else [c, m], [(BOOL, s)])[0]
    b.node1("Cast", [eq], FLOAT, s, to=FLOAT)


def pat_conv_scale(b: Builder) -> None:
    """A Conv or grouped ConvTranspose, then a Mul by a constant that is one
    factor per channel (or one for all), maybe followed by a per-channel Add.
    Near misses: a factor that is not per channel, an infinite factor, the
    conv output read twice, the weight shared with a second Conv."""
    x = b.pick_float(min_rank=3, max_rank=4)
    s = b.shape(x)
    sp, c = len(s) - 2, s[1]
    g = b.pick_one([d for d in (1, 2, 3) if c % d == 0])
    m = g * b.randint(1, 2)
    transposed = b.p(0.3)
    wshape = (c, m // g) if transposed else (m, c // g)
    wv = (b.rng.standard_normal(wshape + (1,) * sp) / math.sqrt(c)).astype(np.float32)
    w = b.const(wv, "w")
    ins = [x, w]
    if b.p(0.4):
        ins.append(b.const(b.rng.standard_normal(m).astype(np.float32), "bias"))
    out = [s[0], m] + list(s[2:])
    y = b.node1("ConvTranspose" if transposed else "Conv", ins, FLOAT, out, group=g)
    u = b.rng.random()
    ks = b.pick_one([(1, m) + (1,) * sp, (m,) + (1,) * sp, (), (1,) * len(out)]) if u < 0.8 else tuple(out[1:])
    kv = b.rng.standard_normal(ks).astype(np.float32)
    if 0.8 <= u < 0.85:
        kv = np.full(ks, np.inf, np.float32)
    k = b.const(kv, "k")
    z = b.node1("Mul", [y, k] if b.p(0.5) else [k, y], FLOAT, broadcast(out, ks))
    if b.p(0.4):
        z = b.node1("Add", [z, b.const(b.rng.standard_normal((m,) + (1,) * sp).astype(np.float32))], FLOAT, b.shape(z))
    if 0.85 <= u < 0.92:
        b.node1("Neg", [y], FLOAT, out)
    elif u >= 0.92 and not transposed:
        b.node1("Conv", [x, w], FLOAT, out, group=g)


def pat_conv_input_scale(b: Builder) -> None:
    """A Mul by a constant, then a (maybe grouped, maybe padded) Conv of it.
    The constant is one factor for all or one per input channel; near misses:
    per channel into a grouped Conv, a constant that widens the data, an
    infinite factor, the product read twice."""
    x = b.pick_float(min_rank=3, max_rank=4)
    s = b.shape(x)
    sp, c = len(s) - 2, s[1]
    g = b.pick_one([d for d in (1, 2, 3) if c % d == 0])
    m = g * b.randint(1, 2)
    u = b.rng.random()
    ks = b.pick_one([(), (1,), (1, c) + (1,) * sp, (c,) + (1,) * sp]) if u < 0.85 else (2,) + (1,) * (len(s) - 1)
    kv = b.rng.standard_normal(ks).astype(np.float32)
    if 0.8 <= u < 0.85:
        kv = np.full(ks, np.inf, np.float32)
    xs = broadcast(s, ks)
    y = b.node1("Mul", [x, b.const(kv, "k")] if b.p(0.5) else [b.const(kv, "k"), x], FLOAT, xs)
    kernel = b.randint(1, 2)
    pads = [b.randint(0, kernel - 1) for _ in range(2 * sp)]
    wv = (b.rng.standard_normal((m, c // g) + (kernel,) * sp) / math.sqrt(c)).astype(np.float32)
    out = [xs[0], m] + [d + pads[i] + pads[i + sp] - kernel + 1 for i, d in enumerate(xs[2:])]
    b.node1("Conv", [y, b.const(wv, "w")], FLOAT, out, group=g, pads=pads)
    if b.p(0.1):
        b.node1("Neg", [y], FLOAT, xs)


PATTERNS: List[Tuple[Callable[[Builder], None], float]] = [
    (pat_transpose, 8),
    (pat_transpose_pair, 8),
    (pat_reshape, 8),
    (pat_squeeze_unsqueeze, 5),
    (pat_flatten, 2),
    (pat_identity, 4),
    (pat_neutral, 12),
    (pat_const_binary, 5),
    (pat_binary, 5),
    (pat_activation, 7),
    (pat_clip, 3),
    (pat_min_max, 1.5),
    (pat_exp, 1.5),
    (pat_concat, 4),
    (pat_split, 4),
    (pat_slice, 6),
    (pat_reduce, 4),
    (pat_gather, 5),
    (pat_cast, 3),
    (pat_pad, 4),
    (pat_expand, 4),
    (pat_tile, 1),
    (pat_where, 3),
    (pat_scatternd, 3),
    (pat_gathernd, 2),
    (pat_batchnorm, 2),
    (pat_pool, 3),
    (pat_conv, 3),
    (pat_resize, 2),
    (pat_fanout, 4),
    (pat_nhwc_region, 8),
    (pat_tp_rs_neighbours, 6),
    (pat_channel_groups, 3),
    (pat_inner_shuffle, 3),
    (pat_gather_ranges, 3),
    (pat_siblings, 6),
    (pat_const_subgraph, 3),
    (pat_shape_arith, 3),
    (pat_mask, 2),
    (pat_const_if, 1.5),
    (pat_conv_bn, 1.5),
    (pat_pad_into, 2),
    (pat_conv_add, 1.5),
    (pat_const_chain, 2),
    (pat_identity_weight, 1.5),
    # parallel branches around Split/Concat, and ScatterND pairs
    (pat_parallel_after_split, 3),
    (pat_parallel_before_concat, 2),
    (pat_inner_math, 2),
    (pat_scatternd_pair, 3),
    # Slice, Split and Concat restructuring
    (pat_slice_chain, 3),
    (pat_parallel_slices, 3),
    (pat_concat_slice, 2),
    (pat_split_concat_pairs, 4),
    (pat_concat_chain, 1.5),
    (pat_gather_restructure, 3),
    (pat_split_relocation, 3),
    # attention blocks: fused QKV heads, attention conv permutations, FFN reshapes
    (pat_fused_qkv, 4),
    (pat_attention_conv_gather, 2),
    (pat_ffn_reshape, 2),
    # Reshapes around elementwise ops, Reshape/Transpose around Concat and Split
    (pat_reshape_around_elementwise, 4),
    (pat_reshape_pair_into_elementwise, 2),
    (pat_mul_pair_add, 2),
    (pat_layout_around_concat_split, 3),
    # small fusions
    (pat_focus_stem, 5),
    (pat_slice_select, 4),
    (pat_min_max_near, 1.5),
    (pat_mul_add_fold, 2),
    (pat_cast_equal, 2),
    # Transpose and Reshape neighbours around Split and Concat
    (pat_split_branches_tp, 4),
    (pat_reshape_around_concat, 3),
    (pat_reshape_around_split, 3),
    (pat_split_branch_layouts, 3),
    # a per-channel Mul after a convolution, a constant Mul before one
    (pat_conv_scale, 2),
    (pat_conv_input_scale, 2),
]
_WEIGHTS = np.array([w for _, w in PATTERNS], dtype=float)
_WEIGHTS /= _WEIGHTS.sum()


def random_input_shape(b: Builder) -> Shape:
    rank = b.pick_one([1, 2, 2, 3, 3, 4, 4, 4, 4])
    while True:
        shape = tuple(1 if b.p(0.2) else b.randint(2, 6) for _ in range(rank))
        if prod(shape) <= 360:
            return shape


def build(rng: np.random.Generator) -> onnx.ModelProto:
    """One random model (not yet checked)."""
    b = Builder(rng)
    first = random_input_shape(b)
    b.add_input(FLOAT, first)
    for _ in range(b.randint(0, 2)):
        shape = first if b.p(0.3) else random_input_shape(b)
        b.add_input(INT64 if b.p(0.12) else FLOAT, shape)
    target = b.randint(5, 40)
    tries = 0
    while len(b.nodes) < target and tries < 300:
        tries += 1
        fn = PATTERNS[int(rng.choice(len(PATTERNS), p=_WEIGHTS))][0]
        try:
            fn(b)
        except Skip:
            pass
    return finish(b)


def finish(b: Builder) -> onnx.ModelProto:
    readers: Counter = Counter()
    for n in b.nodes:
        readers.update(i for i in n.input if i)
    produced = [o for n in b.nodes if n.op_type != "Constant" for o in n.output if o in b.pool or o in b.side]
    outputs: List[str] = []
    for o in produced:
        if readers[o] == 0:
            if b.p(0.3 if o in b.side else 0.85):  # the rest are dead ends
                outputs.append(o)
        elif b.p(0.08):  # a graph output that other nodes read too
            outputs.append(o)
    if b.p(0.03):
        outputs.append(b.pick_one(b.inputs))  # an input passed straight through
    if not outputs:
        outputs.append(produced[-1] if produced else b.inputs[0])
    if b.p(0.4):
        outputs = [outputs[int(i)] for i in b.rng.permutation(len(outputs))]

    anonymous = b.p(0.3)  # exporters often leave node names empty
    for i, n in enumerate(b.nodes):
        n.name = "" if anonymous else f"n{i}"

    def vi(name: str) -> onnx.ValueInfoProto:
        e, s = b.info[name]
        return helper.make_tensor_value_info(name, e, list(s))

    graph = helper.make_graph(b.nodes, "fuzz", [vi(n) for n in b.inputs], [vi(n) for n in outputs], initializer=b.inits)
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", OPSET)], producer_name="tolm-fuzz")
    model.ir_version = IR_VERSION
    return model


@dataclass
class Case:
    seed: int
    model: onnx.ModelProto
    feeds: Dict[str, np.ndarray]
    ref: Dict[str, np.ndarray]
    discards: int = 0
    discard_reasons: List[str] = field(default_factory=list)


def generate(seed: int) -> Case:
    """The first valid model drawn for ``seed``, with its inputs and outputs."""
    from check import validate

    reasons: List[str] = []
    for attempt in range(MAX_ATTEMPTS):
        rng = np.random.default_rng([seed, attempt])
        try:
            model = build(rng)
        except Exception as exc:  # noqa: BLE001 - a generator bug must not stop the run
            reasons.append(f"generator {type(exc).__name__}: {exc}")
            continue
        ok, model, feeds, ref, why = validate(model, seed)
        if ok:
            return Case(seed, model, feeds, ref, attempt, reasons)
        reasons.append(why)
    raise RuntimeError(f"seed {seed}: no valid model in {MAX_ATTEMPTS} attempts; last: {reasons[-1]}")


def make_case(seed: int) -> onnx.ModelProto:
    return generate(seed).model
