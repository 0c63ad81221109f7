#include "core/Xml.h"

#include <sstream>
#include <string_view>
#include <vector>

#include <boost/property_tree/xml_parser.hpp>

#include "core/LoggerWrapper.h"
#include "core/PropertyTreeText.h"

namespace utils {
namespace xml {

namespace {

// Where `marker` ends after `from`, or the end of the text.
std::size_t SkipPast(const std::string& text, std::size_t from, const char* marker) {
  std::size_t found = text.find(marker, from);
  return found == std::string::npos ? text.size() : found + std::char_traits<char>::length(marker);
}

// The element structure, which the parser takes on trust: every end tag must close the element
// last opened, at least one element must be there, none may be left open, and the nesting stays
// within kMaxNestingDepth. Comments, CDATA, declarations and quoted attribute values are skipped,
// since they may hold "<" and ">". Empty when the structure holds, else what is wrong.
std::string CheckElementStructure(const std::string& text) {
  std::vector<std::string_view> open;
  bool seen_element = false;
  std::size_t i = text.find('<');
  while (i < text.size()) {
    if (text.compare(i, 4, "<!--") == 0) {
      i = SkipPast(text, i, "-->");
    } else if (text.compare(i, 9, "<![CDATA[") == 0) {
      i = SkipPast(text, i, "]]>");
    } else if (text.compare(i, 2, "<?") == 0 || text.compare(i, 2, "<!") == 0) {
      i = SkipPast(text, i, ">");
    } else {
      const bool closing = text.compare(i, 2, "</") == 0;
      const std::size_t name_start = i + (closing ? 2 : 1);
      std::size_t end = name_start;
      char quote = 0;
      for (; end < text.size() && (quote || text[end] != '>'); ++end) {
        if (quote && text[end] == quote) {
          quote = 0;
        } else if (!quote && (text[end] == '"' || text[end] == '\'')) {
          quote = text[end];
        }
      }
      if (end >= text.size()) {
        return "unterminated tag";
      }
      std::size_t name_end = text.find_first_of(" \t\r\n/>", name_start);
      std::string_view name(text.data() + name_start, name_end - name_start);
      if (closing) {
        if (open.empty() || open.back() != name) {
          return "end tag </" + std::string(name) + "> closes no open element";
        }
        open.pop_back();
      } else if (text[end - 1] != '/') {
        open.push_back(name);
        if (open.size() > static_cast<std::size_t>(kMaxNestingDepth)) {
          return "nested deeper than " + std::to_string(kMaxNestingDepth);
        }
      }
      seen_element = true;
      i = end + 1;
    }
    i = text.find('<', i);
  }
  if (!seen_element) {
    return "no element";
  }
  return open.empty() ? std::string() : "<" + std::string(open.back()) + "> is not closed";
}

bool IsSpecialKey(const std::string& key) {
  return !key.empty() && key.front() == '<';  // <xmlattr>, <xmltext>, <xmlcomment>
}

}  // namespace

bool Parse(const std::string& text, xml_tree* tree, std::string* error) {
  std::string structure_error = CheckElementStructure(text);
  if (!structure_error.empty()) {
    property_tree_text::SetError(error, "Invalid XML: " + structure_error);
    return false;
  }
  return property_tree_text::ParseWith(
      text, tree, error, "XML", [](std::istream& in, xml_tree& parsed) {
        boost::property_tree::read_xml(in, parsed, boost::property_tree::xml_parser::no_comments);
      });
}

bool ReadAndParse(InputStream* stream, xml_tree* tree, std::string* error, std::size_t max_size) {
  std::string body;
  if (!property_tree_text::ReadWholeBody(stream, &body, error, max_size)) {
    return false;
  }
  return Parse(body, tree, error);
}

void RemoveNamespaces(xml_tree* tree) {
  xml_tree renamed(tree->data());
  for (auto& [key, child] : *tree) {
    std::size_t colon = key.find(':');
    if (IsSpecialKey(key)) {
      renamed.push_back({key, std::move(child)});
      continue;
    }
    RemoveNamespaces(&child);
    renamed.push_back({colon == std::string::npos ? key : key.substr(colon + 1), std::move(child)});
  }
  tree->swap(renamed);
}

std::string ToString(const xml_tree& tree) {
  try {
    std::ostringstream out;
    boost::property_tree::write_xml(out, tree);
    return out.str();
  } catch (const std::exception&) {
    return std::string();
  }
}

void Log(const xml_tree& tree) {
  LOG_INFO << ToString(tree);
}

}  // namespace xml
}  // namespace utils
