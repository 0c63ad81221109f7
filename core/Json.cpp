#include "core/Json.h"

// The parser pulls in boost/bind.hpp, which otherwise asks for the placeholders to be declared.
#define BOOST_BIND_GLOBAL_PLACEHOLDERS

#include <sstream>

#include <boost/property_tree/json_parser.hpp>

#include "core/InputStream.h"
#include "core/LoggerWrapper.h"

namespace utils {
namespace json {

namespace {

// The deepest nesting of arrays and objects, strings skipped.
int NestingDepth(const std::string& text) {
  int depth = 0;
  int deepest = 0;
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (in_string) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return deepest;
}

void SetError(std::string* error, std::string text) {
  if (error) {
    *error = std::move(text);
  }
}

}  // namespace

bool Parse(const std::string& text, json_tree* tree, std::string* error) {
  if (NestingDepth(text) > kMaxNestingDepth) {
    SetError(error, "JSON nested deeper than " + std::to_string(kMaxNestingDepth));
    return false;
  }
  try {
    std::istringstream in(text);
    json_tree parsed;
    boost::property_tree::read_json(in, parsed);
    tree->swap(parsed);
    return true;
  } catch (const boost::property_tree::json_parser_error& parse_error) {
    SetError(error, "Invalid JSON: " + parse_error.message() + " at line " +
                        std::to_string(parse_error.line()));
  } catch (const std::exception& other) {
    SetError(error, std::string("Invalid JSON: ") + other.what());
  }
  return false;
}

bool ReadAndParse(InputStream* stream, json_tree* tree, std::string* error) {
  std::string body;
  InputStream::Result result = stream->ReadAllTo(&body, 4096);
  if (result != InputStream::Result::END) {
    SetError(error, std::string("Failed to read the body: ") + ::ToString(result));
    return false;
  }
  return Parse(body, tree, error);
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
