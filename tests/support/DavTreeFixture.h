// Pieces for tests of the WebDAV tree walk: listing bodies in a server's shape, folder URLs of a
// fake server, and a list function that sends the PROPFIND as an adapter does.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "services/MultithreadedTreeDownloader.h"

namespace test {

constexpr char kDavBaseUrl[] = "http://dav.test/";

// The URL of a folder of the fake server: "http://dav.test/" and "http://dav.test/a%20b/c/".
std::string DavFolderUrl(const std::string& path);

struct DavFile {
  std::string name;
  std::uint64_t size;
  std::string etag;  // empty: the server reports none
};

// A 207 body listing `path` itself, then its subfolders and files.
std::string DavListing(const std::string& path, const std::vector<std::string>& folders,
                       const std::vector<DavFile>& files);

// Sends "PROPFIND" with "Depth: 1" to DavFolderUrl(path), as the adapter's list function does.
auxil::MultithreadedTreeDownloader::ListFolderFunction SendDavPropfind();

}  // namespace test
