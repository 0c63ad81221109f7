// The listing parser over one folder of a million entries, made while it is read: MB/s, items/s,
// and the peak of the process's resident memory, which stays that of a small program since the
// document never exists as a whole.
#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <cstdint>
#include <string>

#include "core/LoggerWrapper.h"
#include "services/DavListingParser.h"
#include "tests/support/DavListingGenerator.h"
#include "tests/support/PassThroughNameMapper.h"

namespace {

class CountingListener : public auxil::ParseFolderListener {
 public:
  bool AddFolder(std::string&&) override { return true; }
  bool AddFile(std::string&& name, std::uint64_t size, std::uint64_t, const std::string&) override {
    bytes += size + name.size();
    ++files;
    return true;
  }
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
};

void BM_ParseMillionEntryFolder(benchmark::State& state) {
  const std::uint64_t count = static_cast<std::uint64_t>(state.range(0));
  std::uint64_t produced = 0;
  std::uint64_t items = 0;
  for (auto _ : state) {
    DavListingGenerator input(count);
    test::PassThroughNameMapper mapper;
    CountingListener listener;
    if (!auxil::ParsePropfindResponse(&input, listener, "http://h/dav/big/", &mapper)) {
      state.SkipWithError("parse failed");
      return;
    }
    benchmark::DoNotOptimize(listener.bytes);
    produced += input.Produced();
    items += listener.files;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(produced));
  state.SetItemsProcessed(static_cast<std::int64_t>(items));
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_rss_MB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}
BENCHMARK(BM_ParseMillionEntryFolder)->Arg(1'000'000)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
