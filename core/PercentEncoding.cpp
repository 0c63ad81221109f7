#include "core/PercentEncoding.h"

namespace utils {
namespace {

bool IsUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return -1;
}

}  // namespace

std::string PercentEncoded(std::string_view text, bool keep_slash) {
  std::string out;
  PercentEncode(text, &out, keep_slash);
  return out;
}

void PercentEncode(std::string_view text, std::string* out, bool keep_slash) {
  static const char kHex[] = "0123456789ABCDEF";
  out->reserve(out->size() + text.size());
  for (char ch : text) {
    unsigned char c = static_cast<unsigned char>(ch);
    if (IsUnreserved(c) || (keep_slash && c == '/')) {
      out->push_back(ch);
    } else {
      out->push_back('%');
      out->push_back(kHex[c >> 4]);
      out->push_back(kHex[c & 0x0F]);
    }
  }
}

std::string PercentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      int high = HexValue(text[i + 1]);
      int low = HexValue(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

}  // namespace utils
