// InputStream and OutputStream: the body of an answer, pulled block by block, and the body of an
// upload, pushed block by block.
//
//   std::string body;
//   if (stream->ReadAllTo(&body, 4096) != InputStream::Result::END) { ... }
//
// The numbers of StreamResult are part of the adapters' contracts: 1 is a good read or write,
// 3 the end of the stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

enum class StreamResult : std::int32_t { FAILED = 0, OK = 1, STOPPED = 2, END = 3 };

const char* ToString(StreamResult result);
std::ostream& operator<<(std::ostream& out, StreamResult result);

class InputStream {
 public:
  using Result = StreamResult;
  virtual ~InputStream() = default;

  // Blocks until at least one byte, the end, a failure or a stop. OK comes with `*done` > 0;
  // END, FAILED and STOPPED with `*done` == 0.
  virtual Result Read(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) = 0;

  // What an answer read whole into memory may hold unless its reader knows better: a page of a
  // service's JSON is a few MB at most.
  static constexpr std::size_t kMaxAnswerBytes = 16 * 1024 * 1024;

  // Appends the rest of the stream to `out`, reading `block_size` bytes at a time. Answers END when
  // the whole body was read, FAILED (with a log line) when it would grow past `max_size` bytes.
  Result ReadAllTo(std::string* out, std::uint32_t block_size,
                   std::size_t max_size = kMaxAnswerBytes);
};

class OutputStream {
 public:
  using Result = StreamResult;
  virtual ~OutputStream() = default;
  // Sends the whole block, or fails. OK: all bytes went; END: the last announced byte went.
  virtual Result Write(const std::uint8_t* data, std::uint32_t size) = 0;
};

// An input stream over bytes in memory. `max_block` caps what one Read gives, so that a test can
// split a body at any byte; `fail_at` ends the stream with FAILED once that many bytes went out.
class MemoryInputStream : public InputStream {
 public:
  explicit MemoryInputStream(std::string data, std::uint32_t max_block = UINT32_MAX,
                             std::uint64_t fail_at = UINT64_MAX);
  Result Read(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) override;

  // Read sizes follow this list in turn (then `max_block`), for splits at chosen offsets.
  void SetBlockSizes(std::vector<std::uint32_t> sizes) { block_sizes_ = std::move(sizes); }

 private:
  std::string data_;
  std::uint32_t max_block_;
  std::uint64_t fail_at_;
  std::uint64_t position_ = 0;
  std::vector<std::uint32_t> block_sizes_;
  std::size_t next_block_ = 0;
};
