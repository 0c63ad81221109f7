#include "core/Xml.h"

#include <sstream>

#include <boost/property_tree/xml_parser.hpp>

#include "core/InputStream.h"
#include "core/LoggerWrapper.h"

namespace utils {
namespace xml {

namespace {

// Where `marker` ends after `from`, or the end of the text.
std::size_t SkipPast(const std::string& text, std::size_t from, const char* marker) {
  std::size_t found = text.find(marker, from);
  return found == std::string::npos ? text.size() : found + std::char_traits<char>::length(marker);
}

// The deepest nesting of elements. Comments, CDATA, declarations and quoted attribute values
// are skipped, since they may hold "<" and ">".
int NestingDepth(const std::string& text) {
  int depth = 0;
  int deepest = 0;
  std::size_t i = text.find('<');
  while (i < text.size()) {
    if (text.compare(i, 4, "<!--") == 0) {
      i = SkipPast(text, i, "-->");
    } else if (text.compare(i, 9, "<![CDATA[") == 0) {
      i = SkipPast(text, i, "]]>");
    } else if (text.compare(i, 2, "<?") == 0 || text.compare(i, 2, "<!") == 0) {
      i = SkipPast(text, i, ">");
    } else if (text.compare(i, 2, "</") == 0) {
      --depth;
      i = SkipPast(text, i, ">");
    } else {
      char quote = 0;
      std::size_t end = i + 1;
      for (; end < text.size() && (quote || text[end] != '>'); ++end) {
        if (quote && text[end] == quote) {
          quote = 0;
        } else if (!quote && (text[end] == '"' || text[end] == '\'')) {
          quote = text[end];
        }
      }
      if (end < text.size() && text[end - 1] != '/') {
        deepest = std::max(deepest, ++depth);
      }
      i = end + 1;
    }
    i = text.find('<', i);
  }
  return deepest;
}

void SetError(std::string* error, std::string text) {
  if (error) {
    *error = std::move(text);
  }
}

bool IsSpecialKey(const std::string& key) {
  return !key.empty() && key.front() == '<';  // <xmlattr>, <xmltext>, <xmlcomment>
}

}  // namespace

bool Parse(const std::string& text, xml_tree* tree, std::string* error) {
  if (NestingDepth(text) > kMaxNestingDepth) {
    SetError(error, "XML nested deeper than " + std::to_string(kMaxNestingDepth));
    return false;
  }
  try {
    std::istringstream in(text);
    xml_tree parsed;
    boost::property_tree::read_xml(in, parsed, boost::property_tree::xml_parser::no_comments);
    tree->swap(parsed);
    return true;
  } catch (const boost::property_tree::xml_parser_error& parse_error) {
    SetError(error, "Invalid XML: " + parse_error.message() + " at line " +
                        std::to_string(parse_error.line()));
  } catch (const std::exception& other) {
    SetError(error, std::string("Invalid XML: ") + other.what());
  }
  return false;
}

bool ReadAndParse(InputStream* stream, xml_tree* tree, std::string* error) {
  std::string body;
  InputStream::Result result = stream->ReadAllTo(&body, 4096);
  if (result != InputStream::Result::END) {
    SetError(error, std::string("Failed to read the body: ") + ::ToString(result));
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
