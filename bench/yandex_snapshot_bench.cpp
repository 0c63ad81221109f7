// Yandex Disk's binary tree snapshot of a large disk parsed straight into the node tree, beside
// the WebDAV walk of a tree of the same shape on Apache 2.4 mod_dav_fs: 1 000 000 items (1 000 top
// folders, each with 9 folders of 110 files). The snapshot is read from memory, so the figures
// are the parser's and the tree's: what a fast link leaves to the client.
//
//   build-release/bench/yandex_snapshot_bench
//   CORVANE_BENCH_SCALE=0.1 build-release/bench/yandex_snapshot_bench   # 100 000 items
//
// Prints, per item, the wall time, the CPU time of the process and the growth of its peak resident
// memory; the snapshot's side also MB/s and entries per second.
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include "core/InputStream.h"
#include "services/YandexBinarySnapshot.h"
#include "support/Measure.h"
#include "support/PassThroughNameMapper.h"
#include "support/TreeBench.h"
#include "support/YandexTesting.h"

namespace {

bench::TreeShape MillionItems() {
  bench::TreeShape shape = bench::TreeShape::Default();
  shape.top_folders *= 10;
  return shape;
}

// The snapshot of the whole disk, as the service sends it: each folder before its contents.
std::string SnapshotOf(const bench::TreeShape& shape) {
  std::string body;
  bench::ForEachPath(shape, [&body](const std::string& path, bool folder) {
    body += folder ? test::SnapshotFolder(path) : test::SnapshotFile(path, 1024);
  });
  return body;
}

void BM_YandexBinarySnapshot(benchmark::State& state) {
  const bench::TreeShape shape = MillionItems();
  std::string body = SnapshotOf(shape);
  const double megabytes = static_cast<double>(body.size()) / 1e6;
  MemoryInputStream input(std::move(body));
  const std::string headers = "Item-Count: " + std::to_string(shape.Items()) + "\r\n";
  test::PassThroughNameMapper mapper;
  double seconds = 0;
  bench::MeasureListing(state, shape, [&](FolderNode* root) {
    RemoteFileSystem::SnapshotDownloadProgress progress;
    YandexBinarySnapshot snapshot(root, {{std::string(), &mapper}, 1700000000}, &progress);
    const auto start = std::chrono::steady_clock::now();
    const bool parsed = snapshot.Parse(&input, headers);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return parsed ? FileSystem::SUCCEEDED : FileSystem::FAILED;
  });
  state.counters["snapshot_MB"] = megabytes;
  state.counters["MB_per_s"] = megabytes / seconds;
  state.counters["entries_per_s"] = static_cast<double>(shape.Items()) / seconds;
}
BENCHMARK(BM_YandexBinarySnapshot)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_WebDavWalkOnApache(benchmark::State& state) {
  bench::MeasureWebDavWalkOnApache(state, MillionItems());
}
BENCHMARK(BM_WebDavWalkOnApache)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return bench::RunBenchmarks(argc, argv);
}
