#include "core/UnicodeLower.h"

#include <QChar>
#include <cstdint>

namespace utils {
namespace {

// Decodes the code point at `text[*pos]` and advances `*pos`; answers -1 (advancing one byte) for
// a byte that does not start a valid, shortest-form sequence.
long DecodeUtf8(std::string_view text, std::size_t* pos) {
  const auto byte = [&text](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  std::uint8_t lead = byte(*pos);
  std::size_t length = lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
  if (length == 0 || *pos + length > text.size()) {
    ++*pos;
    return -1;
  }
  long code = lead & (0x7f >> length);
  for (std::size_t i = 1; i < length; ++i) {
    std::uint8_t next = byte(*pos + i);
    if ((next & 0xc0) != 0x80) {
      ++*pos;
      return -1;
    }
    code = code << 6 | (next & 0x3f);
  }
  static constexpr long kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kMinimum[length] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff)) {
    ++*pos;
    return -1;
  }
  *pos += length;
  return code;
}

void AppendUtf8(long code, std::string* out) {
  if (code < 0x80) {
    out->push_back(static_cast<char>(code));
  } else if (code < 0x800) {
    out->push_back(static_cast<char>(0xc0 | code >> 6));
    out->push_back(static_cast<char>(0x80 | (code & 0x3f)));
  } else if (code < 0x10000) {
    out->push_back(static_cast<char>(0xe0 | code >> 12));
    out->push_back(static_cast<char>(0x80 | (code >> 6 & 0x3f)));
    out->push_back(static_cast<char>(0x80 | (code & 0x3f)));
  } else {
    out->push_back(static_cast<char>(0xf0 | code >> 18));
    out->push_back(static_cast<char>(0x80 | (code >> 12 & 0x3f)));
    out->push_back(static_cast<char>(0x80 | (code >> 6 & 0x3f)));
    out->push_back(static_cast<char>(0x80 | (code & 0x3f)));
  }
}

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
    std::size_t start = pos;
    long code = DecodeUtf8(utf8, &pos);
    if (code < 0)
      out.push_back(utf8[start]);
    else if (code == kCapitalIWithDot)
      out.append(kCapitalIWithDotLower);
    else
      AppendUtf8(static_cast<long>(QChar::toLower(static_cast<uint>(code))), &out);
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
