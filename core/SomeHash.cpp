#include "core/SomeHash.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <new>
#include <type_traits>

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

// The blocks are immutable once made: copies share one, and the last owner frees it.
struct SomeHash::Block {
  Block(HashType type) : type(type) {}

  std::atomic<std::uint32_t> refs{1};
  const HashType type;
};

template <typename T>
struct SomeHash::ValueBlock : Block {
  explicit ValueBlock(const T& value) : Block(TypeOf<T>()), value(value) {}

  const T value;
};

// The text follows the header in the same allocation.
struct SomeHash::TextBlock : Block {
  explicit TextBlock(std::size_t size) : Block(GENERIC), size(size) {}

  static TextBlock* Make(std::string_view text) {
    auto* block = new (::operator new(sizeof(TextBlock) + text.size())) TextBlock(text.size());
    std::memcpy(block->Text(), text.data(), text.size());
    return block;
  }
  static void Free(TextBlock* block) {
    block->~TextBlock();
    ::operator delete(block);
  }
  char* Text() { return reinterpret_cast<char*>(this + 1); }
  std::string_view View() { return std::string_view(Text(), size); }

  const std::size_t size;
};

template <typename T>
constexpr SomeHash::HashType SomeHash::TypeOf() {
  if constexpr (std::is_same_v<T, HashYandex>)
    return YANDEX;
  else if constexpr (std::is_same_v<T, HashDropbox>)
    return DROPBOX;
  else if constexpr (std::is_same_v<T, HashOneDrive>)
    return ONEDRIVE;
  else
    return BOX;
}

SomeHash::SomeHash(const HashYandex& value) {
  Share(value);
}
SomeHash::SomeHash(const HashDropbox& value) {
  Share(value);
}
SomeHash::SomeHash(const HashOneDrive& value) {
  Share(value);
}
SomeHash::SomeHash(const HashBox& value) {
  Share(value);
}

SomeHash::SomeHash(const HashGoogle& value) : tag_(kTagInlineMd5) {
  std::memcpy(bytes_, value.data(), HashGoogle::kSize);
}

SomeHash::SomeHash(const std::string& generic) {
  if (generic.size() <= kInlineText) {
    std::memcpy(bytes_, generic.data(), generic.size());
    tag_ = static_cast<std::uint8_t>(kTagInlineText + generic.size());
  } else {
    SetBlock(TextBlock::Make(generic));
  }
}

SomeHash::SomeHash(const SomeHash& other) : tag_(other.tag_) {
  std::memcpy(bytes_, other.bytes_, sizeof(bytes_));
  if (tag_ == kTagBlock)
    GetBlock()->refs.fetch_add(1, std::memory_order_relaxed);
}

SomeHash::SomeHash(SomeHash&& other) noexcept : tag_(other.tag_) {
  std::memcpy(bytes_, other.bytes_, sizeof(bytes_));
  other.tag_ = kTagNone;
}

SomeHash& SomeHash::operator=(const SomeHash& other) {
  return *this = SomeHash(other);
}

SomeHash& SomeHash::operator=(SomeHash&& other) noexcept {
  if (this != &other) {
    Release();
    std::memcpy(bytes_, other.bytes_, sizeof(bytes_));
    tag_ = other.tag_;
    other.tag_ = kTagNone;
  }
  return *this;
}

template <typename T>
void SomeHash::Share(const T& value) {
  SetBlock(new ValueBlock<T>(value));
}

SomeHash::Block* SomeHash::GetBlock() const {
  Block* block;
  std::memcpy(&block, bytes_, sizeof(block));
  return block;
}

void SomeHash::SetBlock(Block* block) {
  std::memcpy(bytes_, &block, sizeof(block));
  tag_ = kTagBlock;
}

void SomeHash::Release() {
  if (tag_ != kTagBlock)
    return;
  Block* block = GetBlock();
  tag_ = kTagNone;
  if (block->refs.fetch_sub(1, std::memory_order_acq_rel) != 1)
    return;
  switch (block->type) {
    case YANDEX:
      delete static_cast<ValueBlock<HashYandex>*>(block);
      break;
    case DROPBOX:
      delete static_cast<ValueBlock<HashDropbox>*>(block);
      break;
    case ONEDRIVE:
      delete static_cast<ValueBlock<HashOneDrive>*>(block);
      break;
    case BOX:
      delete static_cast<ValueBlock<HashBox>*>(block);
      break;
    default:
      TextBlock::Free(static_cast<TextBlock*>(block));
      break;
  }
}

template <typename T>
const T* SomeHash::Find() const {
  if (tag_ != kTagBlock || GetBlock()->type != TypeOf<T>())
    return nullptr;
  return &static_cast<const ValueBlock<T>*>(GetBlock())->value;
}

template <typename T>
T SomeHash::Get() const {
  const T* value = Find<T>();
  return value ? *value : T();
}

std::string_view SomeHash::GenericText() const {
  if (tag_ >= kTagInlineText)
    return std::string_view(reinterpret_cast<const char*>(bytes_), tag_ - kTagInlineText);
  if (tag_ == kTagBlock && GetBlock()->type == GENERIC)
    return static_cast<TextBlock*>(GetBlock())->View();
  return std::string_view();
}

HashYandex SomeHash::GetHashYandex() const {
  return Get<HashYandex>();
}
HashDropbox SomeHash::GetHashDropbox() const {
  return Get<HashDropbox>();
}
HashOneDrive SomeHash::GetHashOneDrive() const {
  return Get<HashOneDrive>();
}
HashBox SomeHash::GetHashBox() const {
  return Get<HashBox>();
}

HashGoogle SomeHash::GetHashGoogle() const {
  HashGoogle value;
  if (tag_ == kTagInlineMd5)
    std::memcpy(value.data(), bytes_, HashGoogle::kSize);
  return value;
}

std::string SomeHash::GetHashGenericString() const {
  return std::string(GenericText());
}

SomeHash::HashType SomeHash::GetType() const {
  switch (tag_) {
    case kTagNone:
      return NONE;
    case kTagInlineMd5:
      return GOOGLE;
    case kTagBlock:
      return GetBlock()->type;
    default:
      return GENERIC;
  }
}

bool SomeHash::IsZero() const {
  switch (GetType()) {
    case NONE:
      return true;
    case GOOGLE:
      return GetHashGoogle().IsZero();
    case GENERIC:
      return GenericText().empty();
    case YANDEX:
      return Find<HashYandex>()->IsZero();
    case DROPBOX:
      return Find<HashDropbox>()->IsZero();
    case ONEDRIVE:
      return Find<HashOneDrive>()->IsZero();
    case BOX:
      return Find<HashBox>()->IsZero();
  }
  return true;
}

bool SomeHash::operator==(const SomeHash& other) const {
  const HashType type = GetType();
  if (type != other.GetType())
    return false;
  if (tag_ == kTagBlock && other.tag_ == kTagBlock && GetBlock() == other.GetBlock())
    return true;
  switch (type) {
    case NONE:
      return true;
    case GOOGLE:
      return std::memcmp(bytes_, other.bytes_, HashGoogle::kSize) == 0;
    case GENERIC:
      return GenericText() == other.GenericText();
    case YANDEX:
      return *Find<HashYandex>() == *other.Find<HashYandex>();
    case DROPBOX:
      return *Find<HashDropbox>() == *other.Find<HashDropbox>();
    case ONEDRIVE:
      return *Find<HashOneDrive>() == *other.Find<HashOneDrive>();
    case BOX:
      return *Find<HashBox>() == *other.Find<HashBox>();
  }
  return false;
}

std::string SomeHash::ToHexString() const {
  switch (GetType()) {
    case GOOGLE:
      return GetHashGoogle().ToHexString();
    case GENERIC:
      return GetHashGenericString();
    case YANDEX:
      return Find<HashYandex>()->ToHexString();
    case DROPBOX:
      return Find<HashDropbox>()->ToHexString();
    case ONEDRIVE:
      return Find<HashOneDrive>()->ToHexString();
    case BOX:
      return Find<HashBox>()->sha1;
    case NONE:
      break;
  }
  return std::string();
}

std::string SomeHash::ToDisplayString() const {
  switch (GetType()) {
    case DROPBOX:
      return Find<HashDropbox>()->ToDisplayString();
    case ONEDRIVE:
      return Find<HashOneDrive>()->ToDisplayString();
    case YANDEX: {
      const HashYandex& value = *Find<HashYandex>();
      return value.md5.ToHexString() + " " + value.sha256.ToHexString();
    }
    case BOX: {
      const HashBox& value = *Find<HashBox>();
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
