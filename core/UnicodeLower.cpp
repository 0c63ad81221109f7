#include "core/UnicodeLower.h"

#include "core/StringUtils.h"

#include <QChar>
#include <cstdint>

namespace utils {
namespace {

// The one code point whose lower case is two code points whatever the language: 'i' and a
// combining dot above. QChar keeps to one-to-one mappings and leaves it as it is.
constexpr long kCapitalIWithDot = 0x130;
constexpr std::string_view kCapitalIWithDotLower = "i\u0307";

char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

std::string UnicodeToLower(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size());
  std::size_t pos = 0;
  while (pos < utf8.size()) {
    char c = utf8[pos];
    if (static_cast<std::uint8_t>(c) < 0x80) {
      out.push_back(AsciiLower(c));
      ++pos;
      continue;
    }
    char32_t code = 0;
    const int length = DecodeUtf8(utf8.data() + pos, utf8.data() + utf8.size(), &code);
    if (length <= 0) {
      out.push_back(c);
      ++pos;
      continue;
    }
    pos += static_cast<std::size_t>(length);
    if (code == kCapitalIWithDot)
      out.append(kCapitalIWithDotLower);
    else
      AppendUtf8(static_cast<char32_t>(QChar::toLower(static_cast<uint>(code))), &out);
  }
  return out;
}

bool EqualsLowered(std::string_view text, std::string_view lowered) {
  std::size_t i = 0;
  for (; i < text.size() && i < lowered.size(); ++i) {
    if (static_cast<std::uint8_t>(text[i]) >= 0x80)
      break;
    if (AsciiLower(text[i]) != lowered[i])
      return false;
  }
  if (i == text.size())
    return i == lowered.size();
  // Past the ASCII head, lower the rest; the head is equal and lower case keeps ASCII in ASCII.
  return UnicodeToLower(text.substr(i)) == lowered.substr(i);
}

}  // namespace utils
