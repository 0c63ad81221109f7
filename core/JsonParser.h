// JsonParser: JSON text into a json_tree, keeping what the property tree can't say by type:
// numbers keep their text ("12", "1.5e3"), booleans read "true" and "false", and null reads as an
// empty value, never as the text "null" (a `"next_marker": null` must not look like a marker).
//
//   utils::json::json_tree tree;
//   std::string error;
//   if (!utils::json::JsonParser(text).Parse(&tree, &error)) ...
//
// Strict RFC 8259: no comments, no trailing commas, control characters escaped in strings, at
// most kMaxNestingDepth levels (the parser recurses, so the depth is bounded before the stack is).
// \u escapes become UTF-8; a lone surrogate becomes U+FFFD.
#pragma once

#include <cstddef>
#include <string>

#include "core/Json.h"

namespace utils {
namespace json {

class JsonParser {
 public:
  explicit JsonParser(const std::string& text) : text_(text) {}
  // `*tree` is replaced only on success; `error` receives "Invalid JSON: WHAT at offset N".
  bool Parse(json_tree* tree, std::string* error);

 private:
  bool Value(json_tree* node, int depth);
  bool Object(json_tree* node, int depth);
  bool Array(json_tree* node, int depth);
  bool String(std::string* out);
  bool Number(std::string* out);
  bool Literal(const char* word);
  bool Escape(std::string* out);
  unsigned Hex4();
  void SkipSpace();
  bool Fail(const char* what);
  bool At(char c) const { return position_ < text_.size() && text_[position_] == c; }

  const std::string& text_;
  std::size_t position_ = 0;
  std::string error_;
};

}  // namespace json
}  // namespace utils
