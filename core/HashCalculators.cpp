#include "core/HashCalculators.h"

#include <openssl/evp.h>

#include <cstring>
#include <new>

namespace detail {
namespace {

const EVP_MD* Algorithm(Digest::Kind kind) {
  switch (kind) {
    case Digest::kMd5:
      return EVP_md5();
    case Digest::kSha1:
      return EVP_sha1();
    case Digest::kSha256:
      break;
  }
  return EVP_sha256();
}

EVP_MD_CTX* NewContext() {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  if (context == nullptr)
    throw std::bad_alloc();
  return context;
}

}  // namespace

Digest::Digest(Kind kind) : kind_(kind), context_(NewContext()) {
  Begin();
}

Digest::Digest(const Digest& other) : kind_(other.kind_), context_(NewContext()) {
  EVP_MD_CTX_copy_ex(static_cast<EVP_MD_CTX*>(context_),
                     static_cast<const EVP_MD_CTX*>(other.context_));
}

Digest& Digest::operator=(const Digest& other) {
  if (this != &other) {
    kind_ = other.kind_;
    EVP_MD_CTX_copy_ex(static_cast<EVP_MD_CTX*>(context_),
                       static_cast<const EVP_MD_CTX*>(other.context_));
  }
  return *this;
}

Digest::~Digest() {
  EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(context_));
}

void Digest::Begin() {
  EVP_DigestInit_ex(static_cast<EVP_MD_CTX*>(context_), Algorithm(kind_), nullptr);
}

void Digest::Feed(const std::uint8_t* data, std::size_t size) {
  EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(context_), data, size);
}

void Digest::Finish(std::uint8_t* out) {
  EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(context_), out, nullptr);
}

}  // namespace detail

namespace {

template <std::size_t N>
HashBase<N> FinishInto(detail::Digest* digest) {
  HashBase<N> value;
  digest->Finish(value.data());
  return value;
}

}  // namespace

// Box

SomeHash HashCalculatorBox::Finish() {
  HashBox value;
  value.sha1 = FinishInto<20>(&digest_).ToHexString();
  return SomeHash(value);
}

// Dropbox

void HashCalculatorDropbox::Begin() {
  block_.Begin();
  overall_.Begin();
  block_fill_ = 0;
}

void HashCalculatorDropbox::Feed(const std::uint8_t* data, std::uint32_t size) {
  while (size > 0) {
    std::uint32_t part = std::min(size, kBlockSize - block_fill_);
    block_.Feed(data, part);
    block_fill_ += part;
    data += part;
    size -= part;
    if (block_fill_ == kBlockSize)
      EndBlock();
  }
}

void HashCalculatorDropbox::EndBlock() {
  HashBase<32> block_hash = FinishInto<32>(&block_);
  overall_.Feed(block_hash.data(), block_hash.kSize);
  block_.Begin();
  block_fill_ = 0;
}

HashBase<32> HashCalculatorDropbox::BlockDigest(const std::uint8_t* data, std::uint32_t size) {
  detail::Digest digest(detail::Digest::kSha256);
  digest.Feed(data, size);
  return FinishInto<32>(&digest);
}

bool HashCalculatorDropbox::FeedBlockDigest(const HashBase<32>& digest) {
  if (block_fill_ != 0) {
    return false;
  }
  overall_.Feed(digest.data(), digest.kSize);
  return true;
}

SomeHash HashCalculatorDropbox::Finish() {
  // A last, partial block counts; an empty file has no block at all.
  if (block_fill_ > 0)
    EndBlock();
  HashDropbox value;
  value.hash = FinishInto<32>(&overall_);
  return SomeHash(value);
}

// Google

SomeHash HashCalculatorGoogle::Finish() {
  return SomeHash(FinishInto<16>(&digest_));
}

// Internal

SomeHash HashCalculatorInternal::Finish() {
  return SomeHash(FinishInto<32>(&digest_).ToHexString());
}

// OneDrive

void HashCalculatorOneDrive::Begin() {
  columns_.fill(0);
  length_ = 0;
}

void HashCalculatorOneDrive::Feed(const std::uint8_t* data, std::uint32_t size) {
  std::uint32_t column = static_cast<std::uint32_t>(length_ % kWidthBits);
  length_ += size;
  // Up to the first column, then whole rows of 160 bytes, then the rest.
  std::uint32_t i = 0;
  for (; column != 0 && i < size; ++i, column = (column + 1) % kWidthBits)
    columns_[column] ^= data[i];
  if (size - i >= kWidthBits) {
    // A row is twenty 64-bit words, each xored whole into the columns it covers: a byte at a
    // time the loop ran at a fifth of the speed of memory. Copies in and out keep the byte order.
    std::array<std::uint64_t, kWidthBits / 8> lanes;
    std::memcpy(lanes.data(), columns_.data(), kWidthBits);
    for (; size - i >= kWidthBits; i += kWidthBits) {
      for (std::uint32_t lane = 0; lane < lanes.size(); ++lane) {
        std::uint64_t word;
        std::memcpy(&word, data + i + 8 * lane, sizeof(word));
        lanes[lane] ^= word;
      }
    }
    std::memcpy(columns_.data(), lanes.data(), kWidthBits);
  }
  for (std::uint32_t c = 0; i < size; ++i, ++c)
    columns_[c] ^= data[i];
}

SomeHash HashCalculatorOneDrive::Finish() {
  constexpr std::uint32_t kBytes = kWidthBits / 8;
  std::array<std::uint8_t, kBytes> ring{};
  for (std::uint32_t c = 0; c < kWidthBits; ++c) {
    std::uint32_t bit = c * kShift % kWidthBits;
    std::uint32_t byte = bit / 8;
    std::uint32_t shift = bit % 8;
    ring[byte] ^= static_cast<std::uint8_t>(columns_[c] << shift);
    if (shift != 0)
      ring[(byte + 1) % kBytes] ^= static_cast<std::uint8_t>(columns_[c] >> (8 - shift));
  }
  for (std::uint32_t i = 0; i < 8; ++i)
    ring[kBytes - 8 + i] ^= static_cast<std::uint8_t>(length_ >> (8 * i));
  HashOneDrive value;
  value.quick_xor = HashBase<20>(ring);
  return SomeHash(value);
}

// Yandex

void HashCalculatorYandex::Begin() {
  md5_.Begin();
  sha256_.Begin();
}

void HashCalculatorYandex::Feed(const std::uint8_t* data, std::uint32_t size) {
  md5_.Feed(data, size);
  sha256_.Feed(data, size);
}

SomeHash HashCalculatorYandex::Finish() {
  HashYandex value;
  value.md5 = FinishInto<16>(&md5_);
  value.sha256 = FinishInto<32>(&sha256_);
  return SomeHash(value);
}

std::unique_ptr<HashCalculator> MakeHashCalculator(SomeHash::HashType type) {
  std::unique_ptr<HashCalculator> calculator;
  switch (type) {
    case SomeHash::NONE:
      return nullptr;
    case SomeHash::YANDEX:
      calculator = std::make_unique<HashCalculatorYandex>();
      break;
    case SomeHash::DROPBOX:
      calculator = std::make_unique<HashCalculatorDropbox>();
      break;
    case SomeHash::GOOGLE:
      calculator = std::make_unique<HashCalculatorGoogle>();
      break;
    case SomeHash::GENERIC:
      calculator = std::make_unique<HashCalculatorInternal>();
      break;
    case SomeHash::ONEDRIVE:
      calculator = std::make_unique<HashCalculatorOneDrive>();
      break;
    case SomeHash::BOX:
      calculator = std::make_unique<HashCalculatorBox>();
      break;
  }
  if (calculator)
    calculator->Begin();
  return calculator;
}
