// JSON documents as property trees: objects are children by key, arrays children with empty keys,
// every scalar a string ("12", "true"), null an empty value. Bodies that a service reads with types
// are written with utils::json::Writer (core/JsonWriter.h).
//
//   utils::json::json_tree tree;
//   std::string error;
//   if (!utils::json::ReadAndParse(stream, &tree, &error)) LOG_ERROR << error;
//   if (auto id = utils::json::Child(tree, "parent.id")) use(id->data());
//
// Malformed or truncated input answers false with a description; nothing throws out.
#pragma once

#include <string>

#include <boost/optional.hpp>
#include <boost/property_tree/ptree.hpp>

class InputStream;

namespace utils {
namespace json {

using json_tree = boost::property_tree::ptree;

// Deeper documents are refused rather than risking the parser's stack.
constexpr int kMaxNestingDepth = 512;

bool Parse(const std::string& text, json_tree* tree, std::string* error = nullptr);
// Reads the whole stream (4096 bytes at a time), then parses it.
bool ReadAndParse(InputStream* stream, json_tree* tree, std::string* error);
// The member of an object by its key as it stands, dots and all ("@odata.nextLink").
boost::optional<const json_tree&> Member(const json_tree& tree, const std::string& key);
// The node at a "."-separated path of keys, if there is one.
boost::optional<const json_tree&> Child(const json_tree& tree, const std::string& dotted_path);
// Scalars are written as strings. Empty for a tree JSON can't hold (a node with both a value and
// children).
std::string ToString(const json_tree& tree, bool pretty);
void Log(const json_tree& tree, bool pretty);

}  // namespace json
}  // namespace utils
