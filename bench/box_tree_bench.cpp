// The Box tree of a large account through the emulator on loopback: 100 000 items (100 top
// folders, each with 9 folders of 110 files), listed level by level on the adapter's 4 threads.
//
//   build-release/bench/box_tree_bench
//   CORVANE_BENCH_SCALE=0.1 build-release/bench/box_tree_bench   # 10 000 items
//
// Prints, per item, the wall time, the CPU time of the process and the growth of its peak resident
// memory; the emulator serves from a child process, so the CPU and memory are the adapter's own.
#include <benchmark/benchmark.h>

#include "support/EmulatedAccount.h"
#include "support/Measure.h"
#include "support/TreeBench.h"

namespace {

void BM_BoxFullTree(benchmark::State& state) {
  const bench::TreeShape shape = bench::TreeShape::Default();
  // The emulator serves from a child process: the CPU and memory figures are the adapter's.
  bench::EmulatedAccount box(
      emulators::MakeDialect("box"), CloudServiceId::BOX,
      [&shape](emulators::CloudAccount& account) { bench::SeedAccount(&account, shape); });
  // A fresh adapter, as a new account would start.
  std::unique_ptr<RemoteFileSystem> fs = box.Open();
  bench::MeasureListing(state, shape, [&fs](FolderNode* root) {
    std::uint64_t free = 0, total = 0;
    return fs->GetFullTree(root, &free, &total, nullptr);
  });
}
BENCHMARK(BM_BoxFullTree)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBenchmarks(argc, argv);
}
