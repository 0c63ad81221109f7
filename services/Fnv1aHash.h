// Fnv1aHash: the string hash of the id tree and of the upload session store.
//
//   std::unordered_map<std::string, Session, Fnv1aHash> sessions;
//
// 32-bit FNV-1a over the bytes: cheap on the short ids and names these maps hold, and the same
// value for std::string and std::string_view keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct Fnv1aHash {
  static constexpr std::uint32_t kOffsetBasis = 2166136261u;
  static constexpr std::uint32_t kPrime = 16777619u;

  std::size_t operator()(std::string_view text) const noexcept {
    std::uint32_t hash = kOffsetBasis;
    for (unsigned char byte : text) {
      hash ^= byte;
      hash *= kPrime;
    }
    return hash;
  }
};
