// A bounded stand-in for libFuzzer's driver, so that every fuzz target runs in the ordinary suite
// with any compiler: each seed file of the corpus folder, then a fixed number of deterministic
// mutations of the seeds (bit flips, cuts, splices, repeats). Built with clang's
// -fsanitize=fuzzer instead (CORVANE_LIBFUZZER), the same target runs under the real engine.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::string> ReadCorpus(const std::filesystem::path& folder) {
  std::vector<std::string> seeds;
  if (std::filesystem::is_directory(folder)) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      std::ifstream in(entry.path(), std::ios::binary);
      seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
  }
  if (seeds.empty()) {
    seeds.emplace_back();
  }
  return seeds;
}

std::string Mutate(const std::vector<std::string>& seeds, std::mt19937_64& rng) {
  std::string input = seeds[rng() % seeds.size()];
  int steps = 1 + static_cast<int>(rng() % 4);
  for (int i = 0; i < steps; ++i) {
    std::size_t at = input.empty() ? 0 : rng() % input.size();
    switch (rng() % 5) {
      case 0:
        if (!input.empty())
          input[at] = static_cast<char>(input[at] ^ (1 << (rng() % 8)));
        break;
      case 1:
        input.resize(at);
        break;
      case 2: {
        const std::string& other = seeds[rng() % seeds.size()];
        std::size_t from = other.empty() ? 0 : rng() % other.size();
        input.insert(at, other.substr(from, rng() % 64));
        break;
      }
      case 3:
        if (!input.empty())
          input.insert(at, input.substr(at, rng() % 32));
        break;
      default:
        input.insert(at, 1, static_cast<char>(rng() % 256));
        break;
    }
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> seeds = ReadCorpus(argc > 1 ? argv[1] : "");
  long runs = argc > 2 ? std::atol(argv[2]) : 2000;
  for (const std::string& seed : seeds) {
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(seed.data()), seed.size());
  }
  std::mt19937_64 rng(20261121);
  for (long i = 0; i < runs; ++i) {
    std::string input = Mutate(seeds, rng);
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
  }
  std::printf("%zu seeds, %ld mutations: no failure\n", seeds.size(), runs);
  return 0;
}
