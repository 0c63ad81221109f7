// The hash values of the services, and SomeHash, the tagged variant that carries any of them.
//
//   SomeHash hash(HashDropbox::FromHexString(text));
//   if (hash.GetType() == SomeHash::DROPBOX && !hash.IsZero()) { ... hash.GetHashDropbox() ... }
//
// An empty SomeHash (default constructed) means "no hash"; a zero one means "unknown". Neither
// is the hash of an empty file: SomeHash::EmptyFileHash(type) is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

#include "core/HashImpl.h"

using HashGoogle = HashBase<16>;  // MD5

// Dropbox's content hash, with the revision of the file it was read from.
struct HashDropbox {
  HashBase<32> hash;
  std::string rev;

  bool IsZero() const { return hash.IsZero(); }
  // Equal content; the revision is not part of the content.
  bool operator==(const HashDropbox& other) const { return hash == other.hash; }
  bool operator!=(const HashDropbox& other) const { return !(*this == other); }
  std::string ToHexString() const { return hash.ToHexString(); }
  std::string ToDisplayString() const;
  void Clear() {
    hash.Clear();
    rev.clear();
  }
  static HashDropbox FromHexString(const std::string& text);
};

// Yandex Disk keeps both digests of a file.
struct HashYandex {
  HashBase<16> md5;
  HashBase<32> sha256;

  bool IsZero() const { return md5.IsZero() && sha256.IsZero(); }
  bool operator==(const HashYandex& other) const {
    return md5 == other.md5 && sha256 == other.sha256;
  }
  bool operator!=(const HashYandex& other) const { return !(*this == other); }
  // The MD5 hex followed by the SHA-256 hex, 96 characters.
  std::string ToHexString() const { return md5.ToHexString() + sha256.ToHexString(); }
  void Clear() {
    md5.Clear();
    sha256.Clear();
  }
  // Takes the 96-character form of ToHexString.
  static HashYandex FromHexString(const std::string& text);
};

// OneDrive reports up to three digests and an eTag. Two values are equal when every digest known
// on both sides agrees; the eTag names a version, not content, and is not compared.
struct HashOneDrive {
  HashBase<20> quick_xor;
  HashBase<20> sha1;
  std::uint32_t crc32 = 0;
  bool has_crc32 = false;
  std::string etag;

  bool IsZero() const { return quick_xor.IsZero() && sha1.IsZero() && !has_crc32; }
  bool operator==(const HashOneDrive& other) const;
  bool operator!=(const HashOneDrive& other) const { return !(*this == other); }
  std::string ToHexString() const;
  std::string ToDisplayString() const;
};

// Box: the SHA-1 in hexadecimal and the ETag of the item.
struct HashBox {
  std::string sha1;
  std::string etag;

  bool IsZero() const { return sha1.empty(); }
  bool operator==(const HashBox& other) const { return sha1 == other.sha1; }
  bool operator!=(const HashBox& other) const { return !(*this == other); }
};

// 24 bytes whatever the kind, since the tree keeps one per file: an MD5 and a text of up to
// kInlineText bytes (most servers' etags) sit inline, the larger kinds in one immutable block
// shared by the copies (a copy bumps an atomic count, so copies may go to other threads).
class SomeHash {
 public:
  enum HashType : std::uint8_t {
    NONE = 0,
    YANDEX = 2,
    DROPBOX = 3,
    GOOGLE = 4,
    GENERIC = 5,
    ONEDRIVE = 6,
    BOX = 9,
  };
  static constexpr std::size_t kInlineText = 23;

  SomeHash() = default;
  explicit SomeHash(const HashYandex& value);
  explicit SomeHash(const HashDropbox& value);
  explicit SomeHash(const HashGoogle& value);
  explicit SomeHash(const std::string& generic);
  explicit SomeHash(const HashOneDrive& value);
  explicit SomeHash(const HashBox& value);
  SomeHash(const SomeHash& other);
  // Leaves `other` empty.
  SomeHash(SomeHash&& other) noexcept;
  SomeHash& operator=(const SomeHash& other);
  SomeHash& operator=(SomeHash&& other) noexcept;
  ~SomeHash() { Release(); }

  HashType GetType() const;
  bool IsEmpty() const { return tag_ == kTagNone; }
  // Unknown: empty, an all-zero digest or an empty generic text.
  bool IsZero() const;
  bool operator==(const SomeHash& other) const;
  bool operator!=(const SomeHash& other) const { return !(*this == other); }

  // Lower-case hex of the digest (the generic text as it is).
  std::string ToHexString() const;
  // What a person reads in a log: the hex, with the revision or eTag where the kind has one.
  std::string ToDisplayString() const;

  // Each getter asserts nothing: asking for another kind gives an empty value of the asked kind.
  HashYandex GetHashYandex() const;
  HashDropbox GetHashDropbox() const;
  HashGoogle GetHashGoogle() const;
  HashOneDrive GetHashOneDrive() const;
  HashBox GetHashBox() const;
  std::string GetHashGenericString() const;

  // The hash of a file of no bytes, as the kind's calculator gives it (GENERIC: the SHA-256 text
  // of the internal calculator); empty for NONE.
  static SomeHash EmptyFileHash(HashType type);

 private:
  struct Block;
  template <typename T>
  struct ValueBlock;
  struct TextBlock;

  // tag_: one of these, or kTagInlineText + the length of an inline text.
  enum Tag : std::uint8_t {
    kTagNone = 0,
    kTagInlineMd5 = 1,
    kTagBlock = 2,
    kTagInlineText = 8,
  };
  static_assert(kTagInlineText + kInlineText <= 0xff);

  template <typename T>
  static constexpr HashType TypeOf();
  template <typename T>
  void Share(const T& value);
  template <typename T>
  T Get() const;
  template <typename T>
  const T* Find() const;
  Block* GetBlock() const;
  void SetBlock(Block* block);
  std::string_view GenericText() const;
  void Release();

  alignas(void*) unsigned char bytes_[kInlineText] = {};
  std::uint8_t tag_ = kTagNone;
};

std::ostream& operator<<(std::ostream& out, const SomeHash& hash);
