// utils::json::Writer: JSON text with the types a service documents: numbers as numbers, booleans
// as booleans, null as null, strings escaped (control characters as \u00XX, broken UTF-8 as
// U+FFFD, so that the text is always valid JSON).
//
//   utils::json::Writer body;
//   body.BeginObject()
//       .Key("name").String("report.pdf")
//       .Key("size").Number(std::uint64_t{1024})
//       .Key("parent").BeginObject().Key("id").String("0").EndObject()
//       .EndObject();
//   body.Text();  // {"name":"report.pdf","size":1024,"parent":{"id":"0"}}
//
// The caller keeps the nesting right; commas and colons are the writer's.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace utils {
namespace json {

class Writer {
 public:
  Writer& BeginObject();
  Writer& EndObject();
  Writer& BeginArray();
  Writer& EndArray();
  Writer& Key(std::string_view key);
  Writer& String(std::string_view value);
  Writer& Number(std::int64_t value);
  Writer& Number(std::uint64_t value);
  Writer& Bool(bool value);
  Writer& Null();

  const std::string& Text() const { return text_; }

  // `value` as a JSON string literal, quotes included.
  static std::string Quoted(std::string_view value);

 private:
  void BeforeValue();

  std::string text_;
  // Per open object or array: whether it has a member yet.
  std::vector<bool> has_member_;
  bool after_key_ = false;
};

}  // namespace json
}  // namespace utils
