// Sinks of a folder listing: the parsers of DAV listings push each entry into one of these. A
// listener is built on the stack around one parse and owns nothing of what it fills.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "core/RemoteFileSystem.h"
#include "core/SomeHash.h"

class FolderNode;

namespace auxil {

class ParseFolderListener {
 public:
  virtual ~ParseFolderListener() = default;

  // A hint that `count` entries follow.
  virtual void Reserve(std::uint64_t /*count*/) {}
  // False stops the parse.
  virtual bool AddFolder(std::string&& name) = 0;
  // `modified` in seconds since 1970. False stops the parse.
  virtual bool AddFile(std::string&& name, std::uint64_t size, std::uint64_t modified,
                       const std::string& etag) = 0;
};

using MakeHashFunction = std::function<SomeHash(const std::string& serverValue)>;

// Fills a node of the tree directly, with no copy of the listing.
class ParseFolderToFolderNode : public ParseFolderListener {
 public:
  ParseFolderToFolderNode(FolderNode* folder, MakeHashFunction makeHash)
      : folder(folder), makeHash(std::move(makeHash)) {}

  bool AddFolder(std::string&& name) override;
  bool AddFile(std::string&& name, std::uint64_t size, std::uint64_t modified,
               const std::string& etag) override;

  // A file came without an etag: the server lacks what the comparison of versions needs.
  bool noEtag = false;
  FolderNode* folder;
  MakeHashFunction makeHash;
};

// Appends to a one-level listing, for GetFolderListing.
class ParseFolderToListing : public ParseFolderListener {
 public:
  ParseFolderToListing(RemoteFileSystem::FolderListing* listing, MakeHashFunction makeHash)
      : listing(listing), makeHash(std::move(makeHash)) {}

  void Reserve(std::uint64_t count) override { listing->files.reserve(count); }
  bool AddFolder(std::string&& name) override;
  bool AddFile(std::string&& name, std::uint64_t size, std::uint64_t modified,
               const std::string& etag) override;

  bool noEtag = false;
  RemoteFileSystem::FolderListing* listing;
  MakeHashFunction makeHash;
};

// After the parse of a listing: the first entry of each name stays, a folder over a file of its
// name, as ParseFolderToFolderNode keeps them in the tree.
void KeepFirstOfEachName(RemoteFileSystem::FolderListing* listing);

}  // namespace auxil
