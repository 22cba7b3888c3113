// Times the native path on one model file: protobuf parse and serialise of the
// bytes (the floor), then load into the IR, reduce, and save. No Python in the
// way, so a profiler sees only our code.
//
//   tolm_bench MODEL.onnx [repeats]
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <onnx/onnx_pb.h>

#include "host/onnx_io.h"
#include "reduce/driver.h"

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s MODEL.onnx [repeats]\n", argv[0]);
    return 2;
  }
  std::ifstream f(argv[1], std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  const std::string bytes = ss.str();
  const int repeats = argc > 2 ? std::atoi(argv[2]) : 1;
  for (int r = 0; r < repeats; ++r) {
    auto t0 = std::chrono::steady_clock::now();
    onnx::ModelProto m;
    m.ParseFromString(bytes);
    const double parse = seconds_since(t0);
    t0 = std::chrono::steady_clock::now();
    std::string again = m.SerializeAsString();
    const double serialise = seconds_since(t0);

    t0 = std::chrono::steady_clock::now();
    auto ir = tolm::load_model(bytes);
    const double load = seconds_since(t0);
    t0 = std::chrono::steady_clock::now();
    const tolm::DriverStats s = tolm::run_reduce(*ir, nullptr);
    const double reduce = seconds_since(t0);
    t0 = std::chrono::steady_clock::now();
    const std::string out = tolm::save_model(*ir);
    const double save = seconds_since(t0);
    t0 = std::chrono::steady_clock::now();
    ir.reset();
    const double teardown = seconds_since(t0);
    std::printf(
        "parse %.3f serialise %.3f | load %.3f reduce %.3f save %.3f teardown %.3f | "
        "(load+save)/(parse+serialise) %.2f | rewrites %lld\n",
        parse, serialise, load, reduce, save, teardown, (load + save) / (parse + serialise),
        static_cast<long long>(s.rewrites));
  }
  return 0;
}
