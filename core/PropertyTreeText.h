// What the JSON and XML readers share: reading a whole body, and running a property tree parser
// so that its exceptions become a false answer with a description.
#pragma once

#include <sstream>
#include <string>

#include <boost/property_tree/detail/file_parser_error.hpp>
#include <boost/property_tree/ptree.hpp>

class InputStream;

namespace utils {
namespace property_tree_text {

void SetError(std::string* error, std::string text);

// Appends the whole stream (4096 bytes at a time) to `*body`; false with the reason otherwise,
// also when it would hold more than `max_size` bytes.
bool ReadWholeBody(InputStream* stream, std::string* body, std::string* error,
                   std::size_t max_size);

// Runs `read(std::istream&, ptree&)` over `text`; `*tree` is replaced only on success. `kind`
// names the format in the error ("JSON").
template <typename Read>
bool ParseWith(const std::string& text, boost::property_tree::ptree* tree, std::string* error,
               const char* kind, Read read) {
  try {
    std::istringstream in(text);
    boost::property_tree::ptree parsed;
    read(in, parsed);
    tree->swap(parsed);
    return true;
  } catch (const boost::property_tree::file_parser_error& parse_error) {
    SetError(error, std::string("Invalid ") + kind + ": " + parse_error.message() + " at line " +
                        std::to_string(parse_error.line()));
  } catch (const std::exception& other) {
    SetError(error, std::string("Invalid ") + kind + ": " + other.what());
  }
  return false;
}

}  // namespace property_tree_text
}  // namespace utils
