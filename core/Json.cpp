#include "core/Json.h"

// The parser pulls in boost/bind.hpp, which otherwise asks for the placeholders to be declared.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS

#include <sstream>

#include <boost/property_tree/json_parser.hpp>

#include "core/JsonParser.h"
#include "core/LoggerWrapper.h"
#include "core/PropertyTreeText.h"

namespace utils {
namespace json {

bool Parse(const std::string& text, json_tree* tree, std::string* error) {
  return JsonParser(text).Parse(tree, error);
}

bool ReadAndParse(InputStream* stream, json_tree* tree, std::string* error) {
  std::string body;
  if (!property_tree_text::ReadWholeBody(stream, &body, error)) {
    return false;
  }
  return Parse(body, tree, error);
}

boost::optional<const json_tree&> Member(const json_tree& tree, const std::string& key) {
  auto found = tree.find(key);
  if (found == tree.not_found()) {
    return boost::none;
  }
  return found->second;
}

boost::optional<const json_tree&> Child(const json_tree& tree, const std::string& dotted_path) {
  return tree.get_child_optional(json_tree::path_type(dotted_path, '.'));
}

std::string ToString(const json_tree& tree, bool pretty) {
  try {
    std::ostringstream out;
    boost::property_tree::write_json(out, tree, pretty);
    std::string text = out.str();
    // The writer ends with a line feed even when not pretty; callers send the text as a body.
    if (!pretty && !text.empty() && text.back() == '\n') {
      text.pop_back();
    }
    return text;
  } catch (const std::exception&) {
    return std::string();
  }
}

void Log(const json_tree& tree, bool pretty) {
  LOG_INFO << ToString(tree, pretty);
}

}  // namespace json
}  // namespace utils
