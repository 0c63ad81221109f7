#include "core/PropertyTreeText.h"

#include "core/InputStream.h"

namespace utils {
namespace property_tree_text {

void SetError(std::string* error, std::string text) {
  if (error) {
    *error = std::move(text);
  }
}

bool ReadWholeBody(InputStream* stream, std::string* body, std::string* error,
                   std::size_t max_size) {
  InputStream::Result result = stream->ReadAllTo(body, 4096, max_size);
  if (result != InputStream::Result::END) {
    SetError(error, std::string("Failed to read the body: ") + ::ToString(result));
    return false;
  }
  return true;
}

}  // namespace property_tree_text
}  // namespace utils
