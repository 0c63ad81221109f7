// SnapshotBufferedReader: the reader under Yandex Disk's binary tree snapshot. It pulls the body
// of the answer through one fixed buffer and hands out bytes, ULEB64 numbers and strings, so that
// a snapshot of millions of entries costs one buffer and no per-entry allocation but the path.
//
//   SnapshotBufferedReader reader(processor->GetInputStream());
//   std::uint8_t type = 0;
//   std::uint64_t length = 0;
//   std::string path;
//   if (reader.ReadByte(&type) && reader.ReadULEB64(&length) && reader.ReadString(length, &path))
//     ...
//   else if (reader.EndOfStream()) ...  // the body ended
//
// A read either delivers everything asked for or fails; once failed, the reader stays failed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

class InputStream;

class SnapshotBufferedReader {
 public:
  static constexpr std::uint32_t kBufferSize = 24576;
  // A ULEB64 is ten bytes at most: seven bits each cover 64 bits with the tenth.
  static constexpr unsigned kMaxULEB64Shift = 64;
  // No path on the disk comes near this; a longer one is a broken stream, not a name to hold.
  static constexpr std::uint64_t kMaxStringBytes = 65536;

  explicit SnapshotBufferedReader(InputStream* input);

  bool ReadByte(std::uint8_t* value);
  bool ReadBytes(std::uint8_t* out, std::uint32_t size);
  // Logs "Failed to parse ULEB64, too long at " and the offset when the number runs past ten
  // bytes.
  bool ReadULEB64(std::uint64_t* value);
  bool ReadString(std::uint64_t length, std::string* out);

  // The stream offset of the next byte.
  std::uint64_t Offset() const { return offset_; }
  // The body ended; a read that met the end has failed too.
  bool EndOfStream() const { return endOfStream_; }
  bool Failed() const { return failed_; }

 private:
  // Takes the next piece of the body; false when none came.
  bool Refill();

  std::vector<std::uint8_t> buffer_;
  std::uint32_t filled_ = 0;
  std::uint32_t position_ = 0;
  std::uint64_t offset_ = 0;
  bool endOfStream_ = false;
  bool failed_ = false;
  InputStream* input_;
};
