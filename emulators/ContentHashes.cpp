#include "emulators/ContentHashes.h"

#include <openssl/evp.h>

#include <cstring>

namespace emulators {

namespace {

constexpr std::uint64_t kDropboxBlock = 4 * 1024 * 1024;

std::string Hex(const unsigned char* data, std::size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(size * 2);
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 15];
  }
  return text;
}

std::string Base64(const unsigned char* data, std::size_t size) {
  std::string text(4 * ((size + 2) / 3) + 1, '\0');
  int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), data, static_cast<int>(size));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

}  // namespace

class ContentHasher::Digest {
 public:
  explicit Digest(const EVP_MD* kind) : context_(EVP_MD_CTX_new()) {
    EVP_DigestInit_ex(context_, kind, nullptr);
  }
  ~Digest() { EVP_MD_CTX_free(context_); }
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  void Update(const void* data, std::size_t size) { EVP_DigestUpdate(context_, data, size); }
  // The raw digest; the context starts over for the next message.
  std::string Take() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context_, digest, &length);
    EVP_DigestInit_ex(context_, nullptr, nullptr);
    return std::string(reinterpret_cast<char*>(digest), length);
  }

 private:
  EVP_MD_CTX* context_;
};

// Microsoft's QuickXorHash: byte i of the input is XORed into a 160-bit ring at bit 11 * i
// (mod 160), least significant bit first; the length, as 64 bits little-endian, is XORed into the
// last 8 bytes of the ring.
class ContentHasher::QuickXor {
 public:
  // Bytes 160 apart land on the same bits (11 * 160 is a whole number of turns of the ring), so a
  // byte is only XORed into the column of its place in the row; the digest spreads the columns.
  void Update(const std::uint8_t* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      columns_[column_] ^= data[i];
      column_ = column_ + 1 == kBits ? 0 : column_ + 1;
    }
    length_ += size;
  }

  std::string Base64Digest() const {
    std::array<std::uint8_t, kBytes> digest{};
    for (unsigned column = 0; column < kBits; ++column) {
      unsigned bit = column * kShift % kBits;
      unsigned spread = static_cast<unsigned>(columns_[column]) << (bit % 8);
      digest[bit / 8] ^= static_cast<std::uint8_t>(spread);
      digest[(bit / 8 + 1) % kBytes] ^= static_cast<std::uint8_t>(spread >> 8);
    }
    for (int i = 0; i < 8; ++i) {
      digest[kBytes - 8 + i] ^= static_cast<std::uint8_t>(length_ >> (8 * i));
    }
    return Base64(digest.data(), digest.size());
  }

 private:
  static constexpr unsigned kBits = 160;
  static constexpr unsigned kBytes = kBits / 8;
  static constexpr unsigned kShift = 11;

  std::array<std::uint8_t, kBits> columns_{};
  unsigned column_ = 0;
  std::uint64_t length_ = 0;
};

ContentHasher::ContentHasher(unsigned kinds) {
  if (kinds & kMd5)
    md5_ = std::make_unique<Digest>(EVP_md5());
  if (kinds & kSha1)
    sha1_ = std::make_unique<Digest>(EVP_sha1());
  if (kinds & kSha256)
    sha256_ = std::make_unique<Digest>(EVP_sha256());
  if (kinds & kDropbox) {
    dropbox_block_ = std::make_unique<Digest>(EVP_sha256());
    dropbox_whole_ = std::make_unique<Digest>(EVP_sha256());
  }
  if (kinds & kQuickXor)
    quickxor_ = std::make_unique<QuickXor>();
}

ContentHasher::~ContentHasher() = default;
ContentHasher::ContentHasher(ContentHasher&&) noexcept = default;
ContentHasher& ContentHasher::operator=(ContentHasher&&) noexcept = default;

void ContentHasher::Update(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  if (md5_)
    md5_->Update(bytes, size);
  if (sha1_)
    sha1_->Update(bytes, size);
  if (sha256_)
    sha256_->Update(bytes, size);
  if (dropbox_block_)
    UpdateDropbox(bytes, size);
  if (quickxor_)
    quickxor_->Update(bytes, size);
  size_ += size;
}

void ContentHasher::UpdateDropbox(const std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    std::size_t take = static_cast<std::size_t>(
        std::min<std::uint64_t>(size, kDropboxBlock - dropbox_block_fill_));
    dropbox_block_->Update(data, take);
    dropbox_block_fill_ += take;
    data += take;
    size -= take;
    if (dropbox_block_fill_ == kDropboxBlock) {
      dropbox_whole_->Update(dropbox_block_->Take().data(), 32);
      dropbox_block_fill_ = 0;
    }
  }
}

ContentDigests ContentHasher::Finish() {
  ContentDigests digests;
  auto hex = [](Digest& digest) {
    std::string raw = digest.Take();
    return Hex(reinterpret_cast<const unsigned char*>(raw.data()), raw.size());
  };
  if (md5_)
    digests.md5 = hex(*md5_);
  if (sha1_)
    digests.sha1 = hex(*sha1_);
  if (sha256_)
    digests.sha256 = hex(*sha256_);
  if (dropbox_block_) {
    // A last partial block counts; an empty file hashes no block at all.
    if (dropbox_block_fill_ > 0) {
      dropbox_whole_->Update(dropbox_block_->Take().data(), 32);
      dropbox_block_fill_ = 0;
    }
    digests.dropbox = hex(*dropbox_whole_);
  }
  if (quickxor_)
    digests.quickxor = quickxor_->Base64Digest();
  return digests;
}

ContentDigests ContentHasher::Of(std::string_view data, unsigned kinds) {
  ContentHasher hasher(kinds);
  hasher.Update(data.data(), data.size());
  return hasher.Finish();
}

}  // namespace emulators
