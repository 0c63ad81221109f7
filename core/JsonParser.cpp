#include "core/JsonParser.h"

namespace utils {
namespace json {

namespace {

void AppendUtf8(unsigned code, std::string* out) {
  if (code < 0x80) {
    *out += static_cast<char>(code);
  } else if (code < 0x800) {
    *out += static_cast<char>(0xC0 | (code >> 6));
    *out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    *out += static_cast<char>(0xE0 | (code >> 12));
    *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    *out += static_cast<char>(0xF0 | (code >> 18));
    *out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    *out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    *out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

constexpr unsigned kReplacement = 0xFFFD;
constexpr unsigned kBadHex = 0x110000;

}  // namespace

bool JsonParser::Parse(json_tree* tree, std::string* error) {
  json_tree parsed;
  SkipSpace();
  bool ok = Value(&parsed, 0);
  SkipSpace();
  if (ok && position_ != text_.size()) {
    ok = Fail("text after the value");
  }
  if (!ok) {
    if (error) {
      *error = "Invalid JSON: " + error_ + " at offset " + std::to_string(position_);
    }
    return false;
  }
  tree->swap(parsed);
  return true;
}

bool JsonParser::Fail(const char* what) {
  if (error_.empty()) {
    error_ = what;
  }
  return false;
}

void JsonParser::SkipSpace() {
  while (position_ < text_.size() && (text_[position_] == ' ' || text_[position_] == '\t' ||
                                      text_[position_] == '\n' || text_[position_] == '\r')) {
    ++position_;
  }
}

bool JsonParser::Value(json_tree* node, int depth) {
  if (position_ >= text_.size()) {
    return Fail("unexpected end");
  }
  switch (text_[position_]) {
    case '{':
      return Object(node, depth + 1);
    case '[':
      return Array(node, depth + 1);
    case '"': {
      std::string text;
      if (!String(&text))
        return false;
      node->data() = std::move(text);
      return true;
    }
    case 't':
      node->data() = "true";
      return Literal("true");
    case 'f':
      node->data() = "false";
      return Literal("false");
    case 'n':
      node->data().clear();
      return Literal("null");
    default:
      return Number(&node->data());
  }
}

bool JsonParser::Object(json_tree* node, int depth) {
  if (depth > kMaxNestingDepth)
    return Fail("nested too deep");
  ++position_;
  SkipSpace();
  if (At('}')) {
    ++position_;
    return true;
  }
  for (;;) {
    std::string key;
    SkipSpace();
    if (!At('"'))
      return Fail("a key is expected");
    if (!String(&key))
      return false;
    SkipSpace();
    if (!At(':'))
      return Fail("':' is expected");
    ++position_;
    SkipSpace();
    json_tree child;
    if (!Value(&child, depth))
      return false;
    node->push_back(json_tree::value_type(std::move(key), std::move(child)));
    SkipSpace();
    if (At(',')) {
      ++position_;
      continue;
    }
    if (At('}')) {
      ++position_;
      return true;
    }
    return Fail("',' or '}' is expected");
  }
}

bool JsonParser::Array(json_tree* node, int depth) {
  if (depth > kMaxNestingDepth)
    return Fail("nested too deep");
  ++position_;
  SkipSpace();
  if (At(']')) {
    ++position_;
    return true;
  }
  for (;;) {
    SkipSpace();
    json_tree child;
    if (!Value(&child, depth))
      return false;
    node->push_back(json_tree::value_type(std::string(), std::move(child)));
    SkipSpace();
    if (At(',')) {
      ++position_;
      continue;
    }
    if (At(']')) {
      ++position_;
      return true;
    }
    return Fail("',' or ']' is expected");
  }
}

bool JsonParser::String(std::string* out) {
  ++position_;
  while (position_ < text_.size()) {
    char c = text_[position_];
    if (c == '"') {
      ++position_;
      return true;
    }
    if (static_cast<unsigned char>(c) < 0x20)
      return Fail("control character in a string");
    if (c == '\\') {
      if (!Escape(out))
        return false;
      continue;
    }
    *out += c;
    ++position_;
  }
  return Fail("unterminated string");
}

bool JsonParser::Escape(std::string* out) {
  ++position_;
  if (position_ >= text_.size())
    return Fail("unterminated string");
  char c = text_[position_++];
  switch (c) {
    case '"':
      *out += '"';
      return true;
    case '\\':
      *out += '\\';
      return true;
    case '/':
      *out += '/';
      return true;
    case 'b':
      *out += '\b';
      return true;
    case 'f':
      *out += '\f';
      return true;
    case 'n':
      *out += '\n';
      return true;
    case 'r':
      *out += '\r';
      return true;
    case 't':
      *out += '\t';
      return true;
    case 'u':
      break;
    default:
      return Fail("unknown escape");
  }
  unsigned code = Hex4();
  if (code == kBadHex)
    return Fail("bad \\u escape");
  if (code >= 0xD800 && code <= 0xDBFF) {
    // A high surrogate counts only with the low one right after it.
    if (text_.compare(position_, 2, "\\u") == 0) {
      std::size_t mark = position_;
      position_ += 2;
      unsigned low = Hex4();
      if (low >= 0xDC00 && low <= 0xDFFF) {
        AppendUtf8(0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00), out);
        return true;
      }
      position_ = mark;
    }
    code = kReplacement;
  } else if (code >= 0xDC00 && code <= 0xDFFF) {
    code = kReplacement;
  }
  AppendUtf8(code, out);
  return true;
}

unsigned JsonParser::Hex4() {
  if (position_ + 4 > text_.size())
    return kBadHex;
  unsigned code = 0;
  for (int i = 0; i < 4; ++i) {
    char c = text_[position_++];
    code <<= 4;
    if (c >= '0' && c <= '9') {
      code |= static_cast<unsigned>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      code |= static_cast<unsigned>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      code |= static_cast<unsigned>(c - 'A' + 10);
    } else {
      return kBadHex;
    }
  }
  return code;
}

bool JsonParser::Number(std::string* out) {
  std::size_t start = position_;
  auto digits = [this] {
    std::size_t first = position_;
    while (position_ < text_.size() && text_[position_] >= '0' && text_[position_] <= '9') {
      ++position_;
    }
    return position_ > first;
  };
  if (At('-'))
    ++position_;
  if (At('0')) {
    ++position_;
  } else if (!digits()) {
    return Fail("a value is expected");
  }
  if (At('.')) {
    ++position_;
    if (!digits())
      return Fail("digits are expected after '.'");
  }
  if (At('e') || At('E')) {
    ++position_;
    if (At('+') || At('-'))
      ++position_;
    if (!digits())
      return Fail("digits are expected in the exponent");
  }
  out->assign(text_, start, position_ - start);
  return true;
}

bool JsonParser::Literal(const char* word) {
  std::string expected(word);
  if (text_.compare(position_, expected.size(), expected) != 0) {
    return Fail("a value is expected");
  }
  position_ += expected.size();
  return true;
}

}  // namespace json
}  // namespace utils
