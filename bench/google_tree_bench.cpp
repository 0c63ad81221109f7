// The Google Drive tree of a large drive through the Drive emulator on loopback, beside the WebDAV
// walk of a tree of the same shape on Apache 2.4 mod_dav_fs: 100 000 items (100 top folders, each
// with 9 folders of 110 files). Drive lists the whole drive as one paged query; WebDAV walks it
// folder by folder with PROPFIND on the adapter's worker threads.
//
//   build-release/bench/google_tree_bench
//   CORVANE_BENCH_SCALE=0.1 build-release/bench/google_tree_bench   # 10 000 items
//
// Prints, per item, the wall time, the CPU time of the process and the growth of its peak resident
// memory. Drive's emulator serves from a child process and Apache from its own: the CPU and memory
// are the adapters' own.
#include <benchmark/benchmark.h>

#include "support/EmulatedAccount.h"
#include "support/Measure.h"
#include "support/TreeBench.h"

namespace {

void BM_GoogleFullTree(benchmark::State& state) {
  const bench::TreeShape shape = bench::TreeShape::Default();
  // The emulator serves from a child process: the CPU and memory figures are the adapter's.
  bench::EmulatedAccount drive(
      emulators::MakeDialect("google"), CloudServiceId::GOOGLE,
      [&shape](emulators::CloudAccount& account) { bench::SeedAccount(&account, shape); });
  std::unique_ptr<RemoteFileSystem> fs = drive.Open();
  bench::MeasureListing(state, shape, [&fs](FolderNode* root) {
    std::uint64_t free = 0, total = 0;
    tsl::htrie_set<char> service_items;
    return fs->GetFullTree(root, &free, &total, &service_items);
  });
}
BENCHMARK(BM_GoogleFullTree)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_WebDavWalkOnApache(benchmark::State& state) {
  bench::MeasureWebDavWalkOnApache(state, bench::TreeShape::Default());
}
BENCHMARK(BM_WebDavWalkOnApache)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBenchmarks(argc, argv);
}
