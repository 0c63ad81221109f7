// The id tree at the size of a large account: one million ids in Google Drive's shape (33
// character ids, a few dozen files per folder, folders eight levels deep at most).
//
//   build/bench/ids_bench [--benchmark_filter=Lookup]
//
// Prints the time of each step and, at the end, the peak resident memory of the process.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdio>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/LoggerWrapper.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileIdsSerializerPOD.h"

namespace {

constexpr int kItems = 1000000;
constexpr int kFilesPerFolder = 24;

long PeakRssKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

std::string MakeId(std::mt19937_64& rng) {
  static const char kAlphabet[] =
      "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_";
  std::string id(33, '0');
  for (char& c : id) {
    c = kAlphabet[rng() % 64];
  }
  return id;
}

struct Tree {
  RemoteFileIds ids;
  std::vector<std::string> file_ids;
  std::vector<std::string> file_paths;
};

// Breadth first, so that the early folders fill up before the deep ones.
void Build(Tree* tree) {
  std::mt19937_64 rng(1);
  tree->ids.Init(MakeId(rng));
  std::vector<std::pair<std::string, std::string>> folders{{tree->ids.GetRootId(), ""}};
  int items = 1;
  for (std::size_t next = 0; items < kItems; ++next) {
    const auto [folder_id, folder_path] = folders[next % folders.size()];
    for (int i = 0; i < kFilesPerFolder && items < kItems; ++i, ++items) {
      const std::string id = MakeId(rng);
      const std::string name = "IMG_" + std::to_string(items) + ".jpg";
      tree->ids.AddFileId(id, name, folder_id);
      tree->file_ids.push_back(id);
      tree->file_paths.push_back(folder_path.empty() ? name : folder_path + "/" + name);
    }
    for (int i = 0; i < 2 && items < kItems && folder_path.size() < 8 * 12; ++i, ++items) {
      const std::string id = MakeId(rng);
      const std::string name = "Album " + std::to_string(items);
      tree->ids.AddFolderId(id, name, folder_id);
      folders.emplace_back(id, folder_path.empty() ? name : folder_path + "/" + name);
    }
  }
}

Tree& SharedTree() {
  static Tree* tree = [] {
    auto* built = new Tree;
    Build(built);
    return built;
  }();
  return *tree;
}

void BM_Build(benchmark::State& state) {
  for (auto _ : state) {
    const long before = PeakRssKb();
    Tree tree;
    Build(&tree);
    state.counters["items"] = tree.ids.GetItemsCount();
    state.counters["peak_growth_MB"] = (PeakRssKb() - before) / 1024.0;
  }
}
BENCHMARK(BM_Build)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_LookupByPath(benchmark::State& state) {
  Tree& tree = SharedTree();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tree.ids.GetFileIdByPath(tree.file_paths[i]));
    i = (i + 7919) % tree.file_paths.size();
  }
}
BENCHMARK(BM_LookupByPath);

void BM_LookupById(benchmark::State& state) {
  Tree& tree = SharedTree();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tree.ids.GetPathById(tree.file_ids[i]));
    i = (i + 7919) % tree.file_ids.size();
  }
}
BENCHMARK(BM_LookupById);

void BM_SerializeText(benchmark::State& state) {
  Tree& tree = SharedTree();
  for (auto _ : state) {
    std::ostringstream out;
    tree.ids.Serialize(nullptr, out);
    state.counters["MB"] = out.str().size() / 1e6;
  }
}
BENCHMARK(BM_SerializeText)->Iterations(2)->Unit(benchmark::kMillisecond);

void BM_DeserializeText(benchmark::State& state) {
  std::ostringstream out;
  SharedTree().ids.Serialize(nullptr, out);
  const std::string text = out.str();
  for (auto _ : state) {
    std::stringstream in(text);
    RemoteFileIds restored;
    RemoteFileIds::Deserialize(nullptr, in, &restored);
    state.counters["items"] = restored.GetItemsCount();
  }
}
BENCHMARK(BM_DeserializeText)->Iterations(2)->Unit(benchmark::kMillisecond);

void BM_SerializePod(benchmark::State& state) {
  Tree& tree = SharedTree();
  for (auto _ : state) {
    std::ostringstream out;
    RemoteFileIdsSerializerPOD().Serialize(&tree.ids, nullptr, out);
    state.counters["MB"] = out.str().size() / 1e6;
  }
}
BENCHMARK(BM_SerializePod)->Iterations(2)->Unit(benchmark::kMillisecond);

void BM_DeserializePod(benchmark::State& state) {
  std::ostringstream out;
  RemoteFileIdsSerializerPOD().Serialize(&SharedTree().ids, nullptr, out);
  const std::string bytes = out.str();
  for (auto _ : state) {
    std::stringstream in(bytes);
    RemoteFileIds restored;
    RemoteFileIdsSerializerPOD().Deserialize(nullptr, &restored, in);
    state.counters["items"] = restored.GetItemsCount();
  }
}
BENCHMARK(BM_DeserializePod)->Iterations(2)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  LoggerWrapper::SetStderrLevel(LogType::kFatal);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::printf("peak resident memory: %.1f MB\n", PeakRssKb() / 1024.0);
  return 0;
}
