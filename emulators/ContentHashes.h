// ContentHasher: the digests the services report of a file's content, computed in one pass over
// pieces of any size: MD5, SHA-1 and SHA-256 (hex), Dropbox's content hash (SHA-256 over the
// SHA-256 of each 4 MiB block, hex) and Microsoft's QuickXorHash (base64).
//
//   emulators::ContentHasher hasher;
//   hasher.Update(piece.data(), piece.size());
//   emulators::ContentDigests digests = hasher.Finish();
//   digests.quickxor;  // "AAAAAAAAAAAAAAAAAAAAAAAAAAA=" for no bytes
//
// The emulators answer with these, computed here from the published algorithms, so that a mistake
// in the library's own calculators shows as a mismatch instead of hiding in both.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace emulators {

struct ContentDigests {
  std::string md5;
  std::string sha1;
  std::string sha256;
  std::string dropbox;
  std::string quickxor;
};

class ContentHasher {
 public:
  // The digests to compute; the others stay empty (each costs a pass over the bytes).
  enum Kinds : unsigned {
    kMd5 = 1,
    kSha1 = 2,
    kSha256 = 4,
    kDropbox = 8,
    kQuickXor = 16,
    kAll = 31,
  };

  explicit ContentHasher(unsigned kinds = kAll);
  ~ContentHasher();
  ContentHasher(ContentHasher&&) noexcept;
  ContentHasher& operator=(ContentHasher&&) noexcept;

  void Update(const void* data, std::size_t size);
  // Ends the hashing; a further Update starts nothing new.
  ContentDigests Finish();
  std::uint64_t Size() const { return size_; }

  static ContentDigests Of(std::string_view data, unsigned kinds = kAll);

 private:
  class Digest;
  class QuickXor;

  void UpdateDropbox(const std::uint8_t* data, std::size_t size);

  std::uint64_t size_ = 0;
  std::unique_ptr<Digest> md5_;
  std::unique_ptr<Digest> sha1_;
  std::unique_ptr<Digest> sha256_;
  std::unique_ptr<Digest> dropbox_block_;
  std::unique_ptr<Digest> dropbox_whole_;
  std::uint64_t dropbox_block_fill_ = 0;
  std::unique_ptr<QuickXor> quickxor_;
};

}  // namespace emulators
