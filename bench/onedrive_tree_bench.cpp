// The OneDrive tree of a large account through the Graph emulator on loopback: 100 000 items
// (100 top folders, each with 9 folders of 110 files) read as one delta snapshot, pages of 1000.
//
//   build-release/bench/onedrive_tree_bench
//   CORVANE_BENCH_SCALE=0.1 build-release/bench/onedrive_tree_bench   # 10 000 items
//
// Prints, per item, the wall time, the CPU time of the process and the growth of its peak resident
// memory; the emulator serves from a child process, so the CPU and memory are the adapter's own.
#include <benchmark/benchmark.h>

#include "emulators/OneDriveDialect.h"
#include "support/EmulatedAccount.h"
#include "support/Measure.h"
#include "support/TreeBench.h"

namespace {

void BM_OneDriveDeltaTree(benchmark::State& state) {
  const bench::TreeShape shape = bench::TreeShape::Default();
  // The emulator serves from a child process: the CPU and memory figures are the adapter's.
  // Pages of 1000: at its default of 200 the emulator copies its whole snapshot for each of 500
  // pages, and the wall time would be its own.
  emulators::OneDriveOptions options;
  options.page_size = 1000;
  bench::EmulatedAccount drive(
      emulators::MakeOneDriveDialect(options), CloudServiceId::ONEDRIVE,
      [&shape](emulators::CloudAccount& account) { bench::SeedAccount(&account, shape); });
  std::unique_ptr<RemoteFileSystem> fs = drive.Open();
  bench::MeasureListing(state, shape, [&fs](FolderNode* root) {
    std::uint64_t free = 0, total = 0;
    tsl::htrie_set<char> service_items;
    return fs->GetFullTree(root, &free, &total, &service_items);
  });
}
BENCHMARK(BM_OneDriveDeltaTree)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBenchmarks(argc, argv);
}
