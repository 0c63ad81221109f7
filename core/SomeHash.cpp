#include "core/SomeHash.h"

#include <cstdio>

#include "core/HashCalculators.h"

std::string HashDropbox::ToDisplayString() const {
  return rev.empty() ? hash.ToHexString() : hash.ToHexString() + " rev " + rev;
}

HashDropbox HashDropbox::FromHexString(const std::string& text) {
  HashDropbox value;
  value.hash = HashBase<32>::FromHexString(text);
  return value;
}

HashYandex HashYandex::FromHexString(const std::string& text) {
  HashYandex value;
  if (text.size() != 2 * (16 + 32)) {
    LOG_ERROR << "Invalid hash string.";
    return value;
  }
  value.md5 = HashBase<16>::FromHexString(text.substr(0, 32));
  value.sha256 = HashBase<32>::FromHexString(text.substr(32));
  if (value.md5.IsZero() || value.sha256.IsZero()) {
    value.Clear();
  }
  return value;
}

bool HashOneDrive::operator==(const HashOneDrive& other) const {
  bool compared = false;
  if (!quick_xor.IsZero() && !other.quick_xor.IsZero()) {
    if (quick_xor != other.quick_xor)
      return false;
    compared = true;
  }
  if (!sha1.IsZero() && !other.sha1.IsZero()) {
    if (sha1 != other.sha1)
      return false;
    compared = true;
  }
  if (has_crc32 && other.has_crc32) {
    if (crc32 != other.crc32)
      return false;
    compared = true;
  }
  // Two values with no digest in common say nothing of each other's content: equal only when
  // both know nothing.
  return compared || (IsZero() && other.IsZero());
}

std::string HashOneDrive::ToHexString() const {
  if (!quick_xor.IsZero())
    return quick_xor.ToHexString();
  if (!sha1.IsZero())
    return sha1.ToHexString();
  if (has_crc32) {
    char text[9];
    std::snprintf(text, sizeof(text), "%08x", crc32);
    return text;
  }
  // The QuickXor of an empty file is all zeros: a real digest, printed as such.
  return quick_xor.ToHexString();
}

std::string HashOneDrive::ToDisplayString() const {
  return etag.empty() ? ToHexString() : ToHexString() + " etag " + etag;
}

SomeHash::HashType SomeHash::GetType() const {
  static constexpr HashType kTypes[] = {NONE, YANDEX, DROPBOX, GOOGLE, GENERIC, ONEDRIVE, BOX};
  return kTypes[value_.index()];
}

bool SomeHash::IsZero() const {
  struct Visitor {
    bool operator()(std::monostate) const { return true; }
    bool operator()(const std::string& text) const { return text.empty(); }
    bool operator()(const HashGoogle& value) const { return value.IsZero(); }
    bool operator()(const HashYandex& value) const { return value.IsZero(); }
    bool operator()(const HashDropbox& value) const { return value.IsZero(); }
    bool operator()(const HashOneDrive& value) const { return value.IsZero(); }
    bool operator()(const HashBox& value) const { return value.IsZero(); }
  };
  return std::visit(Visitor{}, value_);
}

namespace {

struct HexVisitor {
  std::string operator()(std::monostate) const { return std::string(); }
  std::string operator()(const std::string& text) const { return text; }
  std::string operator()(const HashBox& value) const { return value.sha1; }
  template <typename T>
  std::string operator()(const T& value) const {
    return value.ToHexString();
  }
};

}  // namespace

std::string SomeHash::ToHexString() const {
  return std::visit(HexVisitor{}, value_);
}

std::string SomeHash::ToDisplayString() const {
  switch (GetType()) {
    case DROPBOX:
      return std::get<HashDropbox>(value_).ToDisplayString();
    case ONEDRIVE:
      return std::get<HashOneDrive>(value_).ToDisplayString();
    case YANDEX: {
      const HashYandex& value = std::get<HashYandex>(value_);
      return value.md5.ToHexString() + " " + value.sha256.ToHexString();
    }
    case BOX: {
      const HashBox& value = std::get<HashBox>(value_);
      return value.etag.empty() ? value.sha1 : value.sha1 + " etag " + value.etag;
    }
    default:
      return ToHexString();
  }
}

std::ostream& operator<<(std::ostream& out, const SomeHash& hash) {
  return out << hash.ToDisplayString();
}

SomeHash SomeHash::EmptyFileHash(HashType type) {
  std::unique_ptr<HashCalculator> calculator = MakeHashCalculator(type);
  return calculator ? calculator->Finish() : SomeHash();
}
