// Throughput of each content hash, fed in blocks of 1 MiB as a transfer feeds them.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <vector>

#include "core/HashCalculators.h"

namespace {

template <typename Calculator>
void BM_Hash(benchmark::State& state) {
  constexpr std::uint32_t kBlock = 1 << 20;
  std::vector<std::uint8_t> block(kBlock);
  std::mt19937 random(3);
  for (auto& byte : block)
    byte = static_cast<std::uint8_t>(random());
  Calculator calculator;
  calculator.Begin();
  for (auto _ : state)
    calculator.Feed(block.data(), kBlock);
  benchmark::DoNotOptimize(calculator.Finish());
  state.SetBytesProcessed(state.iterations() * kBlock);
}
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorBox);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorDropbox);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorGoogle);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorInternal);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorOneDrive);
BENCHMARK_TEMPLATE(BM_Hash, HashCalculatorYandex);

}  // namespace

BENCHMARK_MAIN();
