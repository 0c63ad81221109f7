// The Box tree of a large account through the emulator on loopback: 100 000 items (100 top
// folders, each with 9 folders of 110 files), listed level by level on the adapter's 4 threads.
//
//   build-release/bench/box_tree_bench
//
// Prints, per item, the wall time, the CPU time of the process (the in-process emulator's serving
// included, so an upper bound of the adapter's own) and the growth of the peak resident memory.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <ctime>

#include "core/LoggerWrapper.h"
#include "services/BoxTesting.h"

namespace {

constexpr int kTopFolders = 100;
constexpr int kSubFolders = 9;
constexpr int kFilesPerFolder = 110;
constexpr int kItems = kTopFolders * (1 + kSubFolders * (1 + kFilesPerFolder));

long PeakRssKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

double ProcessCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return now.tv_sec + now.tv_nsec / 1e9;
}

void Seed(test::BoxAccount* box) {
  // Digests only: the listing never reads content, and the bench measures the listing.
  box->account().SetKeepContentLimit(0);
  for (int t = 0; t < kTopFolders; ++t) {
    const std::string top = box->Folder("0", "Top " + std::to_string(t));
    for (int s = 0; s < kSubFolders; ++s) {
      const std::string sub = box->Folder(top, "Sub " + std::to_string(s));
      for (int f = 0; f < kFilesPerFolder; ++f)
        box->File(sub, "IMG_" + std::to_string(f) + ".jpg", std::to_string(t * 1000 + f));
    }
  }
}

void BM_BoxFullTree(benchmark::State& state) {
  test::BoxAccount box;
  Seed(&box);
  for (auto _ : state) {
    // 1. A fresh adapter, as a new account would start.
    auto fs = box.Open();
    const long peak_before = PeakRssKb();
    const double cpu_before = ProcessCpuSeconds();
    const auto wall_before = std::chrono::steady_clock::now();
    // 2. The listing.
    FolderNode root;
    std::uint64_t free = 0, total = 0;
    FileSystem::Result result = fs->GetFullTree(&root, &free, &total, nullptr);
    const double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_before).count();
    const double cpu = ProcessCpuSeconds() - cpu_before;
    // 3. Per item; a download that failed or missed items has no figure.
    const std::size_t listed = box.Shared().ids.GetItemsCount() - 1;
    if (result != FileSystem::SUCCEEDED || listed != static_cast<std::size_t>(kItems)) {
      state.SkipWithError("the tree did not come down whole");
      return;
    }
    state.counters["items"] = static_cast<double>(listed);
    state.counters["wall_us_per_item"] = wall * 1e6 / kItems;
    state.counters["cpu_us_per_item"] = cpu * 1e6 / kItems;
    state.counters["peak_bytes_per_item"] = (PeakRssKb() - peak_before) * 1024.0 / kItems;
  }
}
BENCHMARK(BM_BoxFullTree)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  LoggerWrapper::SetStderrLevel(LogType::kFatal);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("peak resident memory: %.1f MB\n", PeakRssKb() / 1024.0);
  return 0;
}
