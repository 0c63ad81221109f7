#include "core/JsonWriter.h"

namespace utils {
namespace json {

namespace {

// The length of the valid UTF-8 sequence at `text[i]`, 0 when it is broken.
std::size_t Utf8Length(std::string_view text, std::size_t i) {
  auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  unsigned char lead = byte(i);
  std::size_t length = lead < 0x80                    ? 1
                       : lead >= 0xC2 && lead <= 0xDF ? 2
                       : lead >= 0xE0 && lead <= 0xEF ? 3
                       : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                      : 0;
  if (length == 0 || i + length > text.size()) {
    return 0;
  }
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80)
      return 0;
  }
  // Overlong forms, surrogates and code points past U+10FFFF.
  unsigned char second = length > 1 ? byte(i + 1) : 0;
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F)) {
    return 0;
  }
  return length;
}

}  // namespace

std::string Writer::Quoted(std::string_view value) {
  static const char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  out.reserve(value.size() + 2);
  for (std::size_t i = 0; i < value.size();) {
    unsigned char c = static_cast<unsigned char>(value[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7F) {
      out += "\\u00";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else if (c >= 0x80) {
      std::size_t length = Utf8Length(value, i);
      if (length == 0) {
        out += "\\ufffd";
        ++i;
        continue;
      }
      out.append(value.substr(i, length));
      i += length;
      continue;
    } else {
      out += static_cast<char>(c);
    }
    ++i;
  }
  out += '"';
  return out;
}

void Writer::BeforeValue() {
  if (after_key_) {
    after_key_ = false;
    return;
  }
  if (!has_member_.empty()) {
    if (has_member_.back())
      text_ += ',';
    has_member_.back() = true;
  }
}

Writer& Writer::BeginObject() {
  BeforeValue();
  text_ += '{';
  has_member_.push_back(false);
  return *this;
}

Writer& Writer::EndObject() {
  text_ += '}';
  has_member_.pop_back();
  return *this;
}

Writer& Writer::BeginArray() {
  BeforeValue();
  text_ += '[';
  has_member_.push_back(false);
  return *this;
}

Writer& Writer::EndArray() {
  text_ += ']';
  has_member_.pop_back();
  return *this;
}

Writer& Writer::Key(std::string_view key) {
  BeforeValue();
  text_ += Quoted(key);
  text_ += ':';
  after_key_ = true;
  return *this;
}

Writer& Writer::String(std::string_view value) {
  BeforeValue();
  text_ += Quoted(value);
  return *this;
}

Writer& Writer::Number(std::int64_t value) {
  BeforeValue();
  text_ += std::to_string(value);
  return *this;
}

Writer& Writer::Number(std::uint64_t value) {
  BeforeValue();
  text_ += std::to_string(value);
  return *this;
}

Writer& Writer::Bool(bool value) {
  BeforeValue();
  text_ += value ? "true" : "false";
  return *this;
}

Writer& Writer::Null() {
  BeforeValue();
  text_ += "null";
  return *this;
}

}  // namespace json
}  // namespace utils
