// Measure: what the emulator benchmarks read around the work they time, and the main they share.
//
//   bench::ResourceMeter meter;             // starts the wall and CPU clocks
//   ... the work ...
//   bench::Reading reading = meter.Read();  // wall and CPU seconds, peak resident growth
//
// The benchmarks serve through an emulator in the same process, so the CPU and memory figures
// include the serving: they are upper bounds of the client's own.
#pragma once

#include <chrono>
#include <cstdint>

namespace bench {

struct Reading {
  double wall_seconds = 0;
  double cpu_seconds = 0;
  // The process's peak resident memory while the meter ran, and that peak less the resident
  // memory when it started.
  double peak_bytes = 0;
  double peak_growth_bytes = 0;
};

// Starting a meter hands freed memory back to the system and resets the process's resident
// high-water mark (Linux's clear_refs), so that two measurements in one process each see their
// own peak.
class ResourceMeter {
 public:
  ResourceMeter();
  Reading Read() const;

 private:
  double resident_start_bytes_ = 0;
  double cpu_start_ = 0;
  std::chrono::steady_clock::time_point wall_start_;
};

// The process's peak resident memory so far, in bytes.
double PeakResidentBytes();

// CORVANE_BENCH_SCALE (default 1): the share of the default sizes to run, 0.1 for a quick try.
double Scale();

// Silences the library's log below fatal, runs the registered benchmarks and prints the
// process's peak resident memory.
int RunBenchmarks(int argc, char** argv);

}  // namespace bench
