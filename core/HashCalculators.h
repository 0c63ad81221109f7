// Incremental content hashes of the services, fed block by block as a file goes up or down.
//
//   HashCalculatorDropbox calculator;
//   calculator.Begin();
//   calculator.Feed(block, block_size);   // any number of times, any block sizes
//   SomeHash hash = calculator.Finish();
//
// Begin() starts over; Finish() ends the value, and a new Begin() is needed before feeding again.
// The Dropbox and OneDrive calculators are copyable in the middle of a stream: a resumed upload
// keeps a copy, so the content already sent need not be read again.
//
//   HashCalculatorBox      SHA-1, as lower-case hex in HashBox::sha1
//   HashCalculatorDropbox  Dropbox's content hash: SHA-256 over the SHA-256 of each 4 MiB block
//   HashCalculatorGoogle   MD5
//   HashCalculatorInternal SHA-256 as lower-case hex, a generic hash
//   HashCalculatorOneDrive Microsoft's QuickXorHash, in HashOneDrive::quick_xor
//   HashCalculatorYandex   MD5 and SHA-256
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "core/SomeHash.h"

class HashCalculator {
 public:
  virtual ~HashCalculator() = default;
  virtual void Begin() = 0;
  virtual void Feed(const std::uint8_t* data, std::uint32_t size) = 0;
  virtual SomeHash Finish() = 0;
};

class HashCalculator;

// The calculator of the content hash of a kind, started; null for NONE. GENERIC gets the
// internal one.
std::unique_ptr<HashCalculator> MakeHashCalculator(SomeHash::HashType type);

namespace detail {

// One running OpenSSL digest; copying it copies the state in the middle of the stream.
class Digest {
 public:
  enum Kind { kMd5, kSha1, kSha256 };

  explicit Digest(Kind kind);
  Digest(const Digest& other);
  Digest& operator=(const Digest& other);
  ~Digest();

  void Begin();
  void Feed(const std::uint8_t* data, std::size_t size);
  // Writes the digest's bytes to `out`, which holds room for them.
  void Finish(std::uint8_t* out);

 private:
  Kind kind_;
  void* context_;  // EVP_MD_CTX, kept out of this header
};

}  // namespace detail

namespace detail {

// A calculator over one digest; each kind gives the digest its own form in Finish.
template <Digest::Kind kKind>
class OneDigestCalculator : public HashCalculator {
 public:
  void Begin() override { digest_.Begin(); }
  void Feed(const std::uint8_t* data, std::uint32_t size) override { digest_.Feed(data, size); }

 protected:
  Digest digest_{kKind};
};

}  // namespace detail

class HashCalculatorBox : public detail::OneDigestCalculator<detail::Digest::kSha1> {
 public:
  SomeHash Finish() override;
};

class HashCalculatorDropbox : public HashCalculator {
 public:
  static constexpr std::uint32_t kBlockSize = 4 * 1024 * 1024;

  void Begin() override;
  void Feed(const std::uint8_t* data, std::uint32_t size) override;
  SomeHash Finish() override;

  // The blocks are independent: a whole block's digest may be taken on any thread and handed in
  // at its place in the stream. False, and nothing fed, when the calculator stands inside a block.
  static HashBase<32> BlockDigest(const std::uint8_t* data, std::uint32_t size);
  bool FeedBlockDigest(const HashBase<32>& digest);

 private:
  void EndBlock();

  detail::Digest block_{detail::Digest::kSha256};
  detail::Digest overall_{detail::Digest::kSha256};
  std::uint32_t block_fill_ = 0;
};

class HashCalculatorGoogle : public detail::OneDigestCalculator<detail::Digest::kMd5> {
 public:
  SomeHash Finish() override;
};

class HashCalculatorInternal : public detail::OneDigestCalculator<detail::Digest::kSha256> {
 public:
  SomeHash Finish() override;
};

// QuickXorHash: byte i of the content is xored into a 160-bit ring at bit 11 * i, and the
// content length (64 bits, little-endian) into the last 8 bytes of the result.
class HashCalculatorOneDrive : public HashCalculator {
 public:
  static constexpr std::uint32_t kWidthBits = 160;
  static constexpr std::uint32_t kShift = 11;

  void Begin() override;
  void Feed(const std::uint8_t* data, std::uint32_t size) override;
  SomeHash Finish() override;

 private:
  // Bytes 160 apart land on the same bit of the ring, so the feed only xors each byte into its
  // column; Finish spreads the columns over the ring.
  std::array<std::uint8_t, kWidthBits> columns_{};
  std::uint64_t length_ = 0;
};

class HashCalculatorYandex : public HashCalculator {
 public:
  void Begin() override;
  void Feed(const std::uint8_t* data, std::uint32_t size) override;
  SomeHash Finish() override;

 private:
  detail::Digest md5_{detail::Digest::kMd5};
  detail::Digest sha256_{detail::Digest::kSha256};
};
