// Any body through the emulators' reader of PROPFIND and PROPPATCH requests: no crash, and what
// it accepts names every property and is one of the two requests.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "emulators/DavXml.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  emulators::DavBody body;
  std::string error;
  if (!emulators::ParseDavBody(std::string(reinterpret_cast<const char*>(data), size), &body,
                               &error)) {
    if (error.empty())
      std::abort();
    return 0;
  }
  if (body.root == emulators::DavBody::Root::kNone && !body.all)
    std::abort();
  for (const auto* list : {&body.props, &body.removed}) {
    for (const emulators::DavProperty& prop : *list) {
      if (prop.name.empty())
        std::abort();
    }
  }
  return 0;
}
