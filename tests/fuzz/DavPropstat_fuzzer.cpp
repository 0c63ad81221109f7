// Any bytes as the multistatus of a metainfo PROPFIND: each response's "200 OK" properties are
// walked, and no crash; a property the walk hands over is one of a propstat that said "200 OK".
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/Xml.h"
#include "services/DavPropstat.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  utils::xml::xml_tree tree;
  if (!utils::xml::Parse(std::string(reinterpret_cast<const char*>(data), size), &tree)) {
    return 0;
  }
  utils::xml::RemoveNamespaces(&tree);
  dav_propstat::ForEachFoundProp(tree, [](const std::string&, const utils::xml::xml_tree& prop) {
    prop.get("cloud_path", std::string());
    prop.get("getlastmodified", std::string());
  });
  return 0;
}
