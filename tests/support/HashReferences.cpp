#include "support/HashReferences.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "core/HashImpl.h"

namespace test {
namespace {

// Runs a shell command and answers the first word of its output.
std::string FirstWordOf(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  EXPECT_NE(pipe, nullptr) << command;
  if (pipe == nullptr) {
    return std::string();
  }
  char buffer[256] = {};
  std::string out = fgets(buffer, sizeof(buffer), pipe) ? buffer : "";
  EXPECT_EQ(pclose(pipe), 0) << command;
  return out.substr(0, out.find_first_of(" \n"));
}

}  // namespace

std::string OpensslDigestOf(const std::string& path, const std::string& algorithm) {
  return FirstWordOf("openssl dgst -" + algorithm + " -r '" + path + "'");
}

std::string DropboxHashByOpenssl(const std::string& path, const std::string& scratch_prefix) {
  return FirstWordOf("split -b 4194304 -a 4 '" + path + "' '" + scratch_prefix + "' && for f in '" +
                     scratch_prefix + "'*; do [ -e \"$f\" ] || continue; " +
                     "openssl dgst -sha256 -binary \"$f\"; rm -f \"$f\"; done | " +
                     "openssl dgst -sha256 -r");
}

// Bit j of byte i flips bit (11 * i + j) mod 160 of the ring; the length goes little-endian
// into the last 8 bytes.
std::string QuickXorReference(const std::uint8_t* data, std::size_t size) {
  std::array<std::uint8_t, 20> ring = {};
  for (std::size_t i = 0; i < size; ++i) {
    for (std::size_t j = 0; j < 8; ++j) {
      if (data[i] >> j & 1) {
        std::size_t bit = (11 * i + j) % 160;
        ring[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
      }
    }
  }
  const std::uint64_t length = size;
  for (int i = 0; i < 8; ++i) {
    ring[12 + i] ^= static_cast<std::uint8_t>(length >> (8 * i));
  }
  return HashBase<20>(ring).ToHexString();
}

}  // namespace test
