// The tree at the scale of a large account: a million files.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/Nodes.h"

namespace {

constexpr int kFiles = 1000000;

double PeakRssMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// kFiles files spread over folders of `per_folder` files each.
std::unique_ptr<FolderNode> BuildTree(int per_folder) {
  auto root = std::make_unique<FolderNode>();
  const SomeHash hash(std::string("0123456789abcdef0123456789abcdef"));
  for (int folder = 0; folder < kFiles / per_folder; ++folder) {
    FolderNode* node = root->CreateFolder("folder " + std::to_string(folder));
    for (int file = 0; file < per_folder; ++file)
      node->CreateFileW("file number " + std::to_string(file) + ".dat", 1, hash, 0);
  }
  return root;
}

std::vector<std::string> RandomPaths(int per_folder, int count) {
  std::mt19937 random(1);
  std::vector<std::string> paths;
  for (int i = 0; i < count; ++i) {
    paths.push_back("folder " + std::to_string(random() % (kFiles / per_folder)) + "/file number " +
                    std::to_string(random() % per_folder) + ".dat");
  }
  return paths;
}

void BM_Build(benchmark::State& state) {
  const int per_folder = static_cast<int>(state.range(0));
  for (auto _ : state) {
    std::unique_ptr<FolderNode> root = BuildTree(per_folder);
    benchmark::DoNotOptimize(root.get());
    state.PauseTiming();
    root.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
  state.counters["peak_rss_MiB"] = PeakRssMiB();
}
BENCHMARK(BM_Build)->Arg(100)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(2);

void BM_Teardown(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<FolderNode> root = BuildTree(100);
    state.ResumeTiming();
    root.reset();
  }
  state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_Teardown)->Unit(benchmark::kMillisecond)->Iterations(2);

// One folder built as Box's tree builder and Dropbox's feed build theirs: a case-insensitive look
// before each insertion.
void BM_BuildLookingFirst(benchmark::State& state) {
  const int files = static_cast<int>(state.range(0));
  for (auto _ : state) {
    FolderNode folder;
    for (int file = 0; file < files; ++file) {
      const std::string name = "File Number " + std::to_string(file) + ".dat";
      if (!folder.HasChild(name, true))
        folder.CreateFileW(name, 1, SomeHash(), 0);
    }
    benchmark::DoNotOptimize(folder.FileCount());
  }
  state.SetItemsProcessed(state.iterations() * files);
}
BENCHMARK(BM_BuildLookingFirst)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_Lookup(benchmark::State& state) {
  const int per_folder = static_cast<int>(state.range(0));
  const bool case_insensitive = state.range(1) != 0;
  static std::unique_ptr<FolderNode> root;
  static int built_for = 0;
  if (built_for != per_folder) {
    root = BuildTree(per_folder);
    built_for = per_folder;
  }
  std::vector<std::string> paths = RandomPaths(per_folder, 4096);
  std::size_t i = 0;
  for (auto _ : state) {
    const std::string& path = paths[i++ % paths.size()];
    auto [parent, name] = root->TraversePath(path, case_insensitive);
    benchmark::DoNotOptimize(parent->GetFile(name, case_insensitive));
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["peak_rss_MiB"] = PeakRssMiB();
}
BENCHMARK(BM_Lookup)->Args({100, 0})->Args({100, 1})->Args({100000, 0});

}  // namespace

BENCHMARK_MAIN();
