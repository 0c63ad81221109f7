#include "support/Measure.h"

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>

#include "core/LoggerWrapper.h"

namespace bench {

namespace {

// A "VmHWM:" or "VmRSS:" line of /proc/self/status, in bytes.
double StatusBytes(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0)
      return std::atof(line.c_str() + field.size()) * 1024.0;
  }
  return 0;
}

void ResetPeakResident() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

double ProcessCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return now.tv_sec + now.tv_nsec / 1e9;
}

}  // namespace

ResourceMeter::ResourceMeter() {
  // Memory an earlier run freed would otherwise stay resident and be reused unseen.
  malloc_trim(0);
  ResetPeakResident();
  resident_start_bytes_ = StatusBytes("VmRSS:");
  cpu_start_ = ProcessCpuSeconds();
  wall_start_ = std::chrono::steady_clock::now();
}

Reading ResourceMeter::Read() const {
  Reading reading;
  reading.wall_seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start_).count();
  reading.cpu_seconds = ProcessCpuSeconds() - cpu_start_;
  reading.peak_bytes = StatusBytes("VmHWM:");
  reading.peak_growth_bytes = reading.peak_bytes - resident_start_bytes_;
  return reading;
}

double PeakResidentBytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss * 1024.0;
}

double Scale() {
  const char* text = std::getenv("CORVANE_BENCH_SCALE");
  const double scale = text ? std::atof(text) : 1.0;
  return scale > 0 ? scale : 1.0;
}

int RunBenchmarks(int argc, char** argv) {
  LoggerWrapper::SetStderrLevel(LogType::kFatal);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("peak resident memory: %.1f MB\n", PeakResidentBytes() / (1024.0 * 1024.0));
  return 0;
}

}  // namespace bench
