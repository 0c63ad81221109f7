#include "services/DavPropstat.h"

#include "core/LoggerWrapper.h"

namespace dav_propstat {

URLProcessor::Result Send(URLProcessor* http, const URLProcessor::Request& request,
                          utils::xml::xml_tree* tree) {
  tree->clear();
  if (http->Send(request) && URLProcessor::IsSuccessHttpCode(http->GetResponseCode())) {
    std::string error;
    if (!utils::xml::ReadAndParse(http->GetInputStream(), tree, &error)) {
      LOG_WARNING << "Failed to parse the answer of " << http->GetUrl() << ": " << error;
      tree->clear();
    }
    utils::xml::RemoveNamespaces(tree);
  }
  return http->Finish();
}

void ForEachFoundProp(
    const utils::xml::xml_tree& tree,
    const std::function<void(const std::string& href, const utils::xml::xml_tree& prop)>& found) {
  const auto multistatus = tree.get_child_optional("multistatus");
  if (!multistatus) {
    return;
  }
  for (const auto& [name, response] : *multistatus) {
    if (name != "response") {
      continue;
    }
    for (const auto& [key, propstat] : response) {
      const auto prop = propstat.get_child_optional("prop");
      if (key == "propstat" && prop &&
          propstat.get("status", std::string()).find("200 OK") != std::string::npos) {
        found(response.get("href", std::string()), *prop);
      }
    }
  }
}

std::string XmlEscaped(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&apos;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

}  // namespace dav_propstat
