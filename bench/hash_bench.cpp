// Throughput of each content hash, fed in blocks of 1 MiB as a transfer feeds them, over 64 MiB
// of content so that the bytes come from memory rather than the caches; beside it, the speed at
// which the same walk merely copies the bytes: the ceiling of a hash that keeps up with memory.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "core/HashCalculators.h"

namespace {

constexpr std::uint32_t kBlock = 1 << 20;
constexpr std::size_t kContent = 64 << 20;

const std::vector<std::uint8_t>& Content() {
  static const std::vector<std::uint8_t> content = [] {
    std::vector<std::uint8_t> bytes(kContent);
    std::mt19937 random(3);
    for (auto& byte : bytes)
      byte = static_cast<std::uint8_t>(random());
    return bytes;
  }();
  return content;
}

// Calls `use` with each block of the content in turn, round and round, once per iteration.
template <typename Use>
void WalkBlocks(benchmark::State& state, Use use) {
  const std::vector<std::uint8_t>& content = Content();
  std::size_t offset = 0;
  for (auto _ : state) {
    use(content.data() + offset);
    offset = (offset + kBlock) % kContent;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kBlock);
}

template <typename Calculator>
void BM_Hash(benchmark::State& state) {
  Calculator calculator;
  calculator.Begin();
  WalkBlocks(state, [&calculator](const std::uint8_t* block) { calculator.Feed(block, kBlock); });
  benchmark::DoNotOptimize(calculator.Finish());
}
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorBox);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorDropbox);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorGoogle);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorInternal);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorOneDrive);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorYandex);

void BM_MemoryCopy(benchmark::State& state) {
  std::vector<std::uint8_t> target(kBlock);
  WalkBlocks(state, [&target](const std::uint8_t* block) {
    std::memcpy(target.data(), block, kBlock);
    benchmark::ClobberMemory();
  });
}
BENCHMARK(BM_MemoryCopy);

}  // namespace

BENCHMARK_MAIN();
