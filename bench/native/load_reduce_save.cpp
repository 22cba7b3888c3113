// Times the native path on one model file (CPU seconds of this process):
// protobuf parse and serialise of the bytes (the floor), then load into the
// IR, reduce, and save. No Python in the way, so a profiler sees only our code.
//
//   tolm_bench MODEL.onnx [repeats] [--no-floor]
//
// --no-floor leaves out the protobuf parse and serialise, for a profile of
// our phases alone.
#include <ctime>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <onnx/onnx_pb.h>

#include "host/onnx_io.h"
#include "reduce/driver.h"

namespace {

// CPU time of this process: on a shared machine it moves far less than the
// wall clock when other work competes for the cores.
double cpu_now() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Resident memory of this process in MB: a large graph's cost is as much
// in the pages it touches as in the instructions it runs.
double rss_mb() {
  std::ifstream statm("/proc/self/statm");
  long pages = 0, resident = 0;
  statm >> pages >> resident;
  return static_cast<double>(resident) * 4096.0 / 1e6;
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
  const bool floor = !(argc > 3 && std::string(argv[3]) == "--no-floor");
  for (int r = 0; r < repeats; ++r) {
    double t0 = cpu_now();
    double parse = 0, serialise = 0;
    if (floor) {
      onnx::ModelProto m;
      m.ParseFromString(bytes);
      parse = cpu_now() - t0;
      t0 = cpu_now();
      const std::string again = m.SerializeAsString();
      serialise = cpu_now() - t0;
    }

    const double rss_base = rss_mb();
    t0 = cpu_now();
    auto ir = tolm::load_model(bytes);
    const double load = cpu_now() - t0;
    const double rss_load = rss_mb();
    t0 = cpu_now();
    const tolm::DriverStats s = tolm::run_reduce(*ir, nullptr);
    const double reduce = cpu_now() - t0;
    const double rss_reduce = rss_mb();
    t0 = cpu_now();
    const std::string out = tolm::save_model(*ir);
    const double save = cpu_now() - t0;
    t0 = cpu_now();
    ir.reset();
    const double teardown = cpu_now() - t0;
    std::printf(
        "parse %.3f serialise %.3f | load %.3f reduce %.3f save %.3f teardown %.3f | "
        "(load+save)/(parse+serialise) %.2f | rewrites %lld | MB resident: before load %.0f, "
        "after load %.0f, after reduce %.0f\n",
        parse, serialise, load, reduce, save, teardown, (load + save) / (parse + serialise),
        static_cast<long long>(s.rewrites), rss_base, rss_load, rss_reduce);
  }
  return 0;
}
