#include "core/Pods.h"

#include <algorithm>
#include <cstring>

namespace pods {

const char* ErrorText(Error error) {
  switch (error) {
    case Error::kNoError:
      return nullptr;
    case Error::kWriteError:
      return "the stream refused the bytes";
    case Error::kUnexpectedEnd:
      return "the stream ended inside a value";
    case Error::kVersionMismatch:
      return "the version is newer than this reader";
  }
  return "unknown error";
}

BufferedWriter::BufferedWriter(std::ostream& out) : out_(out), buffer_(new char[kBufferSize]) {}

Error BufferedWriter::PutByte(std::uint8_t value) {
  const char byte = static_cast<char>(value);
  return Put(&byte, 1);
}

Error BufferedWriter::PutUint32(std::uint32_t value) {
  const char bytes[4] = {static_cast<char>(value & 0xff), static_cast<char>((value >> 8) & 0xff),
                         static_cast<char>((value >> 16) & 0xff),
                         static_cast<char>((value >> 24) & 0xff)};
  return Put(bytes, sizeof(bytes));
}

Error BufferedWriter::PutString(std::string_view value) {
  if (PutUint32(static_cast<std::uint32_t>(value.size())) != Error::kNoError) {
    return error_;
  }
  return Put(value.data(), value.size());
}

Error BufferedWriter::Flush() {
  if (error_ == Error::kNoError && used_ != 0) {
    if (!out_.write(buffer_.get(), static_cast<std::streamsize>(used_))) {
      error_ = Error::kWriteError;
    }
    used_ = 0;
  }
  return error_;
}

Error BufferedWriter::Put(const char* data, std::size_t size) {
  while (size != 0 && error_ == Error::kNoError) {
    if (used_ == kBufferSize) {
      Flush();
      continue;
    }
    const std::size_t part = std::min(size, kBufferSize - used_);
    std::memcpy(buffer_.get() + used_, data, part);
    used_ += part;
    data += part;
    size -= part;
  }
  return error_;
}

BufferedReader::BufferedReader(std::istream& in) : in_(in), buffer_(new char[kBufferSize]) {}

BufferedReader::~BufferedReader() {
  if (end_ != begin_) {
    in_.clear();
    in_.seekg(-static_cast<std::streamoff>(end_ - begin_), std::ios_base::cur);
  }
}

Error BufferedReader::GetByte(std::uint8_t* value) {
  char byte = 0;
  Get(&byte, 1);
  *value = static_cast<std::uint8_t>(byte);
  return error_;
}

Error BufferedReader::GetUint32(std::uint32_t* value) {
  unsigned char bytes[4] = {};
  Get(reinterpret_cast<char*>(bytes), sizeof(bytes));
  *value = static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
  return error_;
}

Error BufferedReader::GetString(std::string* value) {
  value->clear();
  std::uint32_t size = 0;
  if (GetUint32(&size) != Error::kNoError) {
    return error_;
  }
  while (size != 0 && error_ == Error::kNoError) {
    if (begin_ == end_ && !Refill()) {
      break;
    }
    const std::size_t part = std::min<std::size_t>(size, end_ - begin_);
    value->append(buffer_.get() + begin_, part);
    begin_ += part;
    size -= static_cast<std::uint32_t>(part);
  }
  return error_;
}

Error BufferedReader::Get(char* data, std::size_t size) {
  while (size != 0 && error_ == Error::kNoError) {
    if (begin_ == end_ && !Refill()) {
      break;
    }
    const std::size_t part = std::min(size, end_ - begin_);
    std::memcpy(data, buffer_.get() + begin_, part);
    begin_ += part;
    data += part;
    size -= part;
  }
  return error_;
}

bool BufferedReader::Refill() {
  in_.read(buffer_.get(), kBufferSize);
  begin_ = 0;
  end_ = static_cast<std::size_t>(in_.gcount());
  if (end_ == 0) {
    error_ = Error::kUnexpectedEnd;
    return false;
  }
  return true;
}

}  // namespace pods
