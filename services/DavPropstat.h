// DavPropstat: the multistatus answers the backup metainfo classes read and write over WebDAV: a
// request whose answer is XML, and the properties of each response that its server reports with
// "200 OK" (a response may hold a 404 propstat for what it lacks beside the 200 one).
//
//   utils::xml::xml_tree tree;
//   URLProcessor::Result result = dav_propstat::Send(http, request, &tree);
//   dav_propstat::ForEachFoundProp(tree, [](const std::string& href, const xml_tree& prop) { ...
//   });
//
// Namespaces are removed from the tree: "D:prop" reads "prop", "u:size" reads "size".
#pragma once

#include <functional>
#include <string>

#include "core/URLProcessor.h"
#include "core/Xml.h"

namespace dav_propstat {

// Sends `request` and reads its answer into `*tree` (empty when it isn't XML, logged).
URLProcessor::Result Send(URLProcessor* http, const URLProcessor::Request& request,
                          utils::xml::xml_tree* tree);

// Calls `found` for every response of a multistatus with the "prop" of its "200 OK" propstat.
void ForEachFoundProp(
    const utils::xml::xml_tree& tree,
    const std::function<void(const std::string& href, const utils::xml::xml_tree& prop)>& found);

// `text` with the five characters XML reserves written as entities.
std::string XmlEscaped(const std::string& text);

}  // namespace dav_propstat
