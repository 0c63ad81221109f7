// HashBase<N>: a digest of N bytes, the value class behind the service hashes, and its parsing
// from the hexadecimal text that servers send.
//
//   HashBase<16> md5 = HashBase<16>::FromHexString("d41d8cd98f00b204e9800998ecf8427e");
//
// An all-zero value means "unknown or invalid": a comparison with it never counts as a conflict.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/LoggerWrapper.h"

template <std::size_t N>
class HashBase {
 public:
  static constexpr std::size_t kSize = N;

  HashBase() : bytes_{} {}
  explicit HashBase(const std::array<std::uint8_t, N>& bytes) : bytes_(bytes) {}

  bool IsZero() const {
    for (std::uint8_t b : bytes_) {
      if (b != 0)
        return false;
    }
    return true;
  }
  bool operator==(const HashBase& other) const { return bytes_ == other.bytes_; }
  bool operator!=(const HashBase& other) const { return bytes_ != other.bytes_; }
  bool operator<(const HashBase& other) const { return bytes_ < other.bytes_; }

  const std::uint8_t* data() const { return bytes_.data(); }
  std::uint8_t* data() { return bytes_.data(); }
  const std::array<std::uint8_t, N>& bytes() const { return bytes_; }
  void Clear() { bytes_.fill(0); }

  std::string ToHexString() const {
    static const char kDigits[] = "0123456789abcdef";
    std::string out(2 * N, '0');
    for (std::size_t i = 0; i < N; ++i) {
      out[2 * i] = kDigits[bytes_[i] >> 4];
      out[2 * i + 1] = kDigits[bytes_[i] & 0x0f];
    }
    return out;
  }

  // Logs at level 3 and answers the zero value on a wrong length or a character that is not a
  // hexadecimal digit; both letter cases are taken.
  // The value of one hexadecimal digit, -1 for any other character.
  static int HexDigit(char c) {
    if (c >= '0' && c <= '9')
      return c - '0';
    if (c >= 'a' && c <= 'f')
      return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
      return c - 'A' + 10;
    return -1;
  }

  static HashBase FromHexString(const std::string& text) {
    HashBase value;
    if (text.size() != 2 * N) {
      LOG_ERROR << "Invalid hash string.";
      return HashBase();
    }
    for (std::size_t i = 0; i < N; ++i) {
      int high = HexDigit(text[2 * i]);
      int low = HexDigit(text[2 * i + 1]);
      if (high < 0 || low < 0) {
        LOG_ERROR << "Invalid symbol in FromHexString method.";
        return HashBase();
      }
      value.bytes_[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return value;
  }

 private:
  std::array<std::uint8_t, N> bytes_;
};
