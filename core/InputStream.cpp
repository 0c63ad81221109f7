#include "core/InputStream.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "core/LoggerWrapper.h"

const char* ToString(StreamResult result) {
  switch (result) {
    case StreamResult::FAILED:
      return "FAILED";
    case StreamResult::OK:
      return "OK";
    case StreamResult::STOPPED:
      return "STOPPED";
    case StreamResult::END:
      return "END";
  }
  return "Unknown type";
}

std::ostream& operator<<(std::ostream& out, StreamResult result) {
  return out << ToString(result);
}

InputStream::Result InputStream::ReadAllTo(std::string* out, std::uint32_t block_size,
                                           std::size_t max_size) {
  std::vector<std::uint8_t> block(std::max<std::uint32_t>(block_size, 1));
  const std::size_t start = out->size();
  for (;;) {
    std::uint32_t done = 0;
    Result result = Read(block.data(), static_cast<std::uint32_t>(block.size()), &done);
    if (out->size() - start + done > max_size) {
      LOG_WARNING << "Answer larger than " << max_size << " bytes; refused.";
      return Result::FAILED;
    }
    try {
      out->append(reinterpret_cast<const char*>(block.data()), done);
    } catch (const std::bad_alloc&) {
      LOG_ERROR << "No memory for an answer of " << out->size() - start + done << " bytes.";
      return Result::FAILED;
    }
    if (result != Result::OK) {
      return result;
    }
  }
}

MemoryInputStream::MemoryInputStream(std::string data, std::uint32_t max_block,
                                     std::uint64_t fail_at)
    : data_(std::move(data)),
      max_block_(std::max<std::uint32_t>(max_block, 1)),
      fail_at_(fail_at) {}

InputStream::Result MemoryInputStream::Read(std::uint8_t* buffer, std::uint32_t size,
                                            std::uint32_t* done) {
  *done = 0;
  if (position_ >= fail_at_) {
    return Result::FAILED;
  }
  if (position_ >= data_.size()) {
    return Result::END;
  }
  std::uint64_t limit = max_block_;
  if (next_block_ < block_sizes_.size()) {
    limit = std::max<std::uint32_t>(block_sizes_[next_block_++], 1);
  }
  std::uint64_t n =
      std::min<std::uint64_t>({size, limit, data_.size() - position_, fail_at_ - position_});
  std::memcpy(buffer, data_.data() + position_, n);
  position_ += n;
  *done = static_cast<std::uint32_t>(n);
  return Result::OK;
}
