#include "core/StringUtils.h"

#include <QByteArray>

#include "core/UnicodeLower.h"

namespace {

bool IsAscii(unsigned char c) {
  return c < 0x80;
}

char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The length of the valid UTF-8 sequence at `pos`, or 0 when the bytes there are not one.
std::size_t Utf8SequenceLength(std::string_view text, std::size_t pos) {
  char32_t c = 0;
  const int length = utils::DecodeUtf8(text.data() + pos, text.data() + text.size(), &c);
  return length > 0 ? static_cast<std::size_t>(length) : 0;
}

// Appends the lower case of `text`; ASCII by table, runs of other valid UTF-8 by Unicode's map.
bool AppendLower(std::string_view text, std::string* out) {
  bool valid = true;
  std::size_t pos = 0;
  while (pos < text.size()) {
    if (IsAscii(text[pos])) {
      out->push_back(AsciiLower(text[pos++]));
      continue;
    }
    std::size_t run_end = pos;
    std::size_t length = 0;
    while (run_end < text.size() && !IsAscii(text[run_end]) &&
           (length = Utf8SequenceLength(text, run_end)) > 0) {
      run_end += length;
    }
    if (run_end == pos) {
      valid = false;
      out->push_back(text[pos++]);
      continue;
    }
    out->append(utils::UnicodeToLower(text.substr(pos, run_end - pos)));
    pos = run_end;
  }
  return valid;
}

bool HasUpperAscii(std::string_view text) {
  for (char c : text) {
    if (c >= 'A' && c <= 'Z') {
      return true;
    }
  }
  return false;
}

bool IsAllAscii(std::string_view text) {
  for (char c : text) {
    if (!IsAscii(c)) {
      return false;
    }
  }
  return true;
}

constexpr char kHexDigits[] = "0123456789abcdef";

void AppendHexByte(unsigned char c, std::string* out) {
  out->push_back(kHexDigits[c >> 4]);
  out->push_back(kHexDigits[c & 0xF]);
}

}  // namespace

std::string ToLower(std::string_view text) {
  std::string lower;
  ToLower(text, &lower);
  return lower;
}

bool ToLower(std::string_view text, std::string* out) {
  out->clear();
  out->reserve(text.size());
  return AppendLower(text, out);
}

bool LowercaseIfNeeded(std::string_view text, std::string* out, bool* changed) {
  *changed = false;
  if (IsAllAscii(text) && !HasUpperAscii(text)) {
    return true;
  }
  std::string lower;
  bool valid = ToLower(text, &lower);
  if (lower != text) {
    *out = std::move(lower);
    *changed = true;
  }
  return valid;
}

bool IEqualsASCII(std::string_view text, const char* other) {
  std::string_view other_text(other);
  if (IsAllAscii(text) && IsAllAscii(other_text)) {
    if (text.size() != other_text.size()) {
      return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (AsciiLower(text[i]) != AsciiLower(other_text[i])) {
        return false;
      }
    }
    return true;
  }
  return ToLower(text) == ToLower(other_text);
}

std::string ConvertToBase64(const std::string& bytes) {
  return QByteArray::fromRawData(bytes.data(), static_cast<int>(bytes.size()))
      .toBase64()
      .toStdString();
}

QString StrToQStr(const std::string& text) {
  return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

std::string QStrToStr(const QString& text) {
  return text.toUtf8().toStdString();
}

std::string QStrToStrFast(const QString& text) {
  std::string out(static_cast<std::size_t>(text.size()), '\0');
  for (int i = 0; i < text.size(); ++i) {
    const ushort unit = text[i].unicode();
    if (unit >= 0x80) {
      return QStrToStr(text);
    }
    out[static_cast<std::size_t>(i)] = static_cast<char>(unit);
  }
  return out;
}

namespace utils {

bool IsValidUtf8(std::string_view text) {
  for (std::size_t pos = 0; pos < text.size();) {
    std::size_t length = Utf8SequenceLength(text, pos);
    if (length == 0) {
      return false;
    }
    pos += length;
  }
  return true;
}

std::string JSONEncodedString(const std::string& text, bool quoted) {
  std::string out;
  out.reserve(text.size() + 2);
  if (quoted) {
    out.push_back('"');
  }
  for (std::size_t pos = 0; pos < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[pos]);
    if (!IsAscii(c)) {
      std::size_t length = Utf8SequenceLength(text, pos);
      if (length == 0) {
        out.append("\xEF\xBF\xBD");  // U+FFFD
        ++pos;
      } else {
        out.append(text, pos, length);
        pos += length;
      }
      continue;
    }
    ++pos;
    switch (c) {
      case '"':
        out.append("\\\"");
        break;
      case '\\':
        out.append("\\\\");
        break;
      case '\b':
        out.append("\\b");
        break;
      case '\f':
        out.append("\\f");
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      case '\t':
        out.append("\\t");
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          out.append("\\u00");
          AppendHexByte(c, &out);
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  if (quoted) {
    out.push_back('"');
  }
  return out;
}

std::string SafePrintBinary(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (char byte : bytes) {
    const unsigned char c = static_cast<unsigned char>(byte);
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      out.push_back(byte);
    } else {
      out.append("\\x");
      AppendHexByte(c, &out);
    }
  }
  return out;
}

int DecodeUtf8(const char* p, const char* end, char32_t* c) {
  const auto byte = [](char b) { return static_cast<unsigned char>(b); };
  const unsigned char lead = byte(*p);
  int length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead < 0x80) {
    *c = lead;
    return 1;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    *c = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    *c = lead & 0x0F;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    *c = lead & 0x07;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    return -1;
  }
  for (int i = 1; i < length; ++i) {
    if (p + i == end) {
      return 0;
    }
    const unsigned char next = byte(p[i]);
    if (next < (i == 1 ? low : 0x80) || next > (i == 1 ? high : 0xBF)) {
      return -1;
    }
    *c = (*c << 6) | (next & 0x3F);
  }
  return length;
}

void AppendUtf8(char32_t c, std::string* out) {
  if (c < 0x80) {
    out->push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (c >> 6)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (c >> 12)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (c >> 18)));
    out->push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

}  // namespace utils
