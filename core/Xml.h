// XML documents as property trees: elements are children by tag, attributes sit under
// "<xmlattr>", text is the data of its element.
//
//   utils::xml::xml_tree tree;
//   if (!utils::xml::ReadAndParse(stream, &tree, &error)) ...
//   utils::xml::RemoveNamespaces(&tree);  // "d:multistatus.d:response" -> "multistatus.response"
//
// Malformed or truncated input answers false with a description; nothing throws out.
#pragma once

#include "core/InputStream.h"

#include <string>

#include <boost/property_tree/ptree.hpp>

class InputStream;

namespace utils {
namespace xml {

using xml_tree = boost::property_tree::ptree;

// Deeper documents are refused rather than risking the parser's stack.
constexpr int kMaxNestingDepth = 512;

bool Parse(const std::string& text, xml_tree* tree, std::string* error = nullptr);
// Reads the whole stream (4096 bytes at a time), then parses it.
// The body may hold at most `max_size` bytes.
bool ReadAndParse(InputStream* stream, xml_tree* tree, std::string* error,
                  std::size_t max_size = InputStream::kMaxAnswerBytes);
// Drops the prefix of every element name ("D:href" becomes "href"); attributes stay as they are.
void RemoveNamespaces(xml_tree* tree);
std::string ToString(const xml_tree& tree);
void Log(const xml_tree& tree);

}  // namespace xml
}  // namespace utils
