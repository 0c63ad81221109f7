// pods: the buffered little-endian binary stream layer under the binary forms of saved state.
//
//   pods::BufferedWriter writer(out);
//   writer.PutUint32(1);
//   writer.PutString(name);
//   pods::Error error = writer.Flush();
//
// Both directions go through a buffer of kBufferSize bytes allocated on construction; a failed
// allocation raises std::bad_alloc. A failure is sticky: once an operation failed, every later
// one answers the same error and moves nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace pods {

enum class Error {
  kNoError = 0,
  kWriteError,
  kUnexpectedEnd,
  kVersionMismatch,
};

// Words for a log line; nullptr for kNoError.
const char* ErrorText(Error error);

constexpr std::size_t kBufferSize = 4096;

class BufferedWriter {
 public:
  explicit BufferedWriter(std::ostream& out);
  BufferedWriter(const BufferedWriter&) = delete;
  BufferedWriter& operator=(const BufferedWriter&) = delete;

  Error PutByte(std::uint8_t value);
  Error PutUint32(std::uint32_t value);
  // A 32-bit byte length, then the bytes.
  Error PutString(std::string_view value);
  // Hands what the buffer holds to the stream.
  Error Flush();

 private:
  Error Put(const char* data, std::size_t size);

  std::ostream& out_;
  std::unique_ptr<char[]> buffer_;
  std::size_t used_ = 0;
  Error error_ = Error::kNoError;
};

class BufferedReader {
 public:
  explicit BufferedReader(std::istream& in);
  // Gives back to a seekable stream what was read ahead, so that it stands right after the last
  // value taken.
  ~BufferedReader();
  BufferedReader(const BufferedReader&) = delete;
  BufferedReader& operator=(const BufferedReader&) = delete;

  Error GetByte(std::uint8_t* value);
  Error GetUint32(std::uint32_t* value);
  // Grows the string only as bytes arrive, so that a corrupt length can't claim memory.
  Error GetString(std::string* value);

 private:
  Error Get(char* data, std::size_t size);
  bool Refill();

  std::istream& in_;
  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  Error error_ = Error::kNoError;
};

}  // namespace pods
