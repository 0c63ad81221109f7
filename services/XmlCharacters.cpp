#include "services/XmlCharacters.h"

#include "core/StringUtils.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>
#include <utility>

namespace xml_chars {

namespace {

// Longer than any reference a server writes; a bound keeps a reference that never ends cheap.
constexpr std::size_t kMaxReferenceSize = 64;

bool IsNameStart(char32_t c) {
  if (c < 0x80) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
  }
  return (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) ||
         (c >= 0x370 && c <= 0x37D) || (c >= 0x37F && c <= 0x1FFF) || c == 0x200C || c == 0x200D ||
         (c >= 0x2070 && c <= 0x218F) || (c >= 0x2C00 && c <= 0x2FEF) ||
         (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
         (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}

bool IsNameChar(char32_t c) {
  return IsNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == 0xB7 ||
         (c >= 0x300 && c <= 0x36F) || c == 0x203F || c == 0x2040;
}

// What a byte is to a name: ASCII that may be in one (kNameByte), ASCII that may not, or the
// first byte of a character to decode.
enum NameByte : unsigned char { kNotName, kNameByte, kDecode };
constexpr std::array<NameByte, 256> MakeNameBytes() {
  std::array<NameByte, 256> bytes{};
  for (int c = 0; c < 256; ++c) {
    const bool ascii = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '_' || c == '-' || c == '.';
    bytes[c] = c >= 0x80 ? kDecode : ascii ? kNameByte : kNotName;
  }
  return bytes;
}
constexpr std::array<NameByte, 256> kNameBytes = MakeNameBytes();

}  // namespace

bool IsXmlChar(char32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

const char* ScanNcName(const char* p, const char* end) {
  char32_t c = 0;
  int length = p < end ? utils::DecodeUtf8(p, end, &c) : 0;
  if (length <= 0 || !IsNameStart(c)) {
    return p;
  }
  const char* q = p + length;
  for (;;) {
    while (q < end && kNameBytes[static_cast<unsigned char>(*q)] == kNameByte) {
      ++q;
    }
    if (q == end || kNameBytes[static_cast<unsigned char>(*q)] != kDecode) {
      return q;
    }
    length = utils::DecodeUtf8(q, end, &c);
    if (length <= 0 || !IsNameChar(c)) {
      return q;
    }
    q += length;
  }
}

int DecodeReference(const char* p, const char* end, char32_t* c) {
  const char* last = p + std::min<std::size_t>(end - p, kMaxReferenceSize);
  const char* semicolon = p + 1;
  while (semicolon < last &&
         ((*semicolon >= '0' && *semicolon <= '9') || (*semicolon >= 'a' && *semicolon <= 'z') ||
          (*semicolon >= 'A' && *semicolon <= 'Z') || *semicolon == '#')) {
    ++semicolon;
  }
  if (semicolon == end) {
    return 0;
  }
  if (semicolon == last || *semicolon != ';') {
    return -1;
  }
  const std::string_view body(p + 1, static_cast<std::size_t>(semicolon - p - 1));
  const int length = static_cast<int>(body.size() + 2);
  if (body.size() > 1 && body[0] == '#') {
    const bool hex = body[1] == 'x';
    const std::string_view digits = body.substr(hex ? 2 : 1);
    std::uint32_t value = 0;
    const auto [rest, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
    if (digits.empty() || error != std::errc() || rest != digits.data() + digits.size() ||
        !IsXmlChar(value)) {
      return -1;
    }
    *c = value;
    return length;
  }
  static constexpr std::pair<std::string_view, char> kEntities[] = {
      {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"apos", '\''}, {"quot", '"'}};
  for (const auto& [entity, replacement] : kEntities) {
    if (body == entity) {
      *c = static_cast<unsigned char>(replacement);
      return length;
    }
  }
  return -1;
}

bool AreXmlChars(const char* p, const char* end) {
  while (p < end) {
    if (static_cast<unsigned char>(*p) >= 0x20 && static_cast<unsigned char>(*p) < 0x80) {
      ++p;
      continue;
    }
    char32_t c = 0;
    const int length = utils::DecodeUtf8(p, end, &c);
    if (length <= 0 || !IsXmlChar(c)) {
      return false;
    }
    p += length;
  }
  return true;
}

const char* Utf8CutBefore(const char* p, const char* end) {
  for (const char* q = end; q > p && end - q < 4;) {
    --q;
    const unsigned char byte = static_cast<unsigned char>(*q);
    if (byte < 0x80) {
      return end;
    }
    if (byte >= 0xC0) {
      const int length = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
      return end - q < length ? q : end;
    }
  }
  return end;
}

}  // namespace xml_chars
