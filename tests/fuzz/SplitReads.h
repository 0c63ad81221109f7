// For the fuzz targets of parsers that read a stream: the first four bytes of an input choose where
// the reads of the rest split it, so that the fuzzer also explores every way an answer can arrive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

struct SplitReads {
  std::string body;
  std::vector<std::uint32_t> sizes;  // of the reads, 1 to `most` bytes each, covering the body
};

inline SplitReads SplitInput(const std::uint8_t* data, std::size_t size, std::uint32_t most) {
  std::uint32_t seed = 0;
  const std::size_t header = size < 4 ? size : 4;
  for (std::size_t i = 0; i < header; ++i) {
    seed = seed * 256 + data[i];
  }
  SplitReads split{std::string(reinterpret_cast<const char*>(data) + header, size - header), {}};
  for (std::size_t total = 0; total < split.body.size(); total += split.sizes.back()) {
    seed = seed * 1103515245u + 12345u;
    split.sizes.push_back(1 + (seed >> 16) % most);
  }
  return split;
}

}  // namespace fuzz
