#include "services/SnapshotBufferedReader.h"

#include <algorithm>
#include <cstring>

#include "core/InputStream.h"
#include "core/LoggerWrapper.h"

SnapshotBufferedReader::SnapshotBufferedReader(InputStream* input)
    : buffer_(kBufferSize), input_(input) {}

bool SnapshotBufferedReader::Refill() {
  if (failed_) {
    return false;
  }
  std::uint32_t done = 0;
  const InputStream::Result result = input_->Read(buffer_.data(), kBufferSize, &done);
  position_ = 0;
  filled_ = 0;
  if (result == InputStream::Result::OK && done > 0) {
    filled_ = std::min(done, kBufferSize);
    return true;
  }
  if (result == InputStream::Result::END) {
    endOfStream_ = true;
  }
  failed_ = true;
  return false;
}

bool SnapshotBufferedReader::ReadBytes(std::uint8_t* out, std::uint32_t size) {
  // 1. Inside the buffer: one copy.
  if (!failed_ && filled_ - position_ >= size) {
    std::memcpy(out, buffer_.data() + position_, size);
    position_ += size;
    offset_ += size;
    return true;
  }
  // 2. Across its end: what is left, a refill, and on.
  while (size > 0) {
    if (position_ == filled_ && !Refill()) {
      return false;
    }
    const std::uint32_t piece = std::min(size, filled_ - position_);
    std::memcpy(out, buffer_.data() + position_, piece);
    position_ += piece;
    offset_ += piece;
    out += piece;
    size -= piece;
  }
  return true;
}

bool SnapshotBufferedReader::ReadByte(std::uint8_t* value) {
  return ReadBytes(value, 1);
}

bool SnapshotBufferedReader::ReadULEB64(std::uint64_t* value) {
  std::uint64_t result = 0;
  unsigned shift = 0;
  std::uint8_t byte = 0;
  while (true) {
    if (!ReadByte(&byte)) {
      return false;
    }
    result |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) {
      break;
    }
    shift += 7;
    if (shift >= kMaxULEB64Shift) {
      LOG_ERROR << "Failed to parse ULEB64, too long at " << offset_;
      failed_ = true;
      return false;
    }
  }
  *value = result;
  return true;
}

bool SnapshotBufferedReader::ReadString(std::uint64_t length, std::string* out) {
  if (length > kMaxStringBytes) {
    LOG_ERROR << "String of " << length << " bytes at " << offset_ << " is past any path.";
    failed_ = true;
    return false;
  }
  out->resize(length);
  return ReadBytes(reinterpret_cast<std::uint8_t*>(out->data()),
                   static_cast<std::uint32_t>(length));
}
