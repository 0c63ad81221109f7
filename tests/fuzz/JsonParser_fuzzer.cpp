// Any bytes given to the JSON reader: no crash, no leak, and a text it accepts writes back to a
// text that it reads to the same tree.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Json.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  utils::json::json_tree tree;
  std::string error;
  if (!utils::json::Parse(std::string(reinterpret_cast<const char*>(data), size), &tree, &error)) {
    return 0;
  }
  std::string text = utils::json::ToString(tree, false);
  utils::json::json_tree again;
  if (!text.empty() && (!utils::json::Parse(text, &again, &error) || again != tree)) {
    std::abort();
  }
  return 0;
}
