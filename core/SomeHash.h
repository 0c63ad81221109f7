// The hash values of the services, and SomeHash, the tagged variant that carries any of them.
//
//   SomeHash hash(HashDropbox::FromHexString(text));
//   if (hash.GetType() == SomeHash::DROPBOX && !hash.IsZero()) { ... hash.GetHashDropbox() ... }
//
// An empty SomeHash (default constructed) means "no hash"; a zero one means "unknown". Neither
// is the hash of an empty file: SomeHash::EmptyFileHash(type) is.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <variant>

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

  SomeHash() = default;
  explicit SomeHash(const HashYandex& value) : value_(value) {}
  explicit SomeHash(const HashDropbox& value) : value_(value) {}
  explicit SomeHash(const HashGoogle& value) : value_(value) {}
  explicit SomeHash(const std::string& generic) : value_(generic) {}
  explicit SomeHash(const HashOneDrive& value) : value_(value) {}
  explicit SomeHash(const HashBox& value) : value_(value) {}

  HashType GetType() const;
  bool IsEmpty() const { return value_.index() == 0; }
  // Unknown: empty, an all-zero digest or an empty generic text.
  bool IsZero() const;
  bool operator==(const SomeHash& other) const { return value_ == other.value_; }
  bool operator!=(const SomeHash& other) const { return !(*this == other); }

  // Lower-case hex of the digest (the generic text as it is).
  std::string ToHexString() const;
  // What a person reads in a log: the hex, with the revision or eTag where the kind has one.
  std::string ToDisplayString() const;

  // Each getter asserts nothing: asking for another kind gives an empty value of the asked kind.
  HashYandex GetHashYandex() const { return Get<HashYandex>(); }
  HashDropbox GetHashDropbox() const { return Get<HashDropbox>(); }
  HashGoogle GetHashGoogle() const { return Get<HashGoogle>(); }
  HashOneDrive GetHashOneDrive() const { return Get<HashOneDrive>(); }
  HashBox GetHashBox() const { return Get<HashBox>(); }
  std::string GetHashGenericString() const { return Get<std::string>(); }

  // The hash of a file of no bytes, as the kind's calculator gives it (GENERIC: the SHA-256 text
  // of the internal calculator); empty for NONE.
  static SomeHash EmptyFileHash(HashType type);

 private:
  template <typename T>
  T Get() const {
    const T* value = std::get_if<T>(&value_);
    return value ? *value : T();
  }

  std::variant<std::monostate, HashYandex, HashDropbox, HashGoogle, std::string, HashOneDrive,
               HashBox>
      value_;
};

std::ostream& operator<<(std::ostream& out, const SomeHash& hash);
