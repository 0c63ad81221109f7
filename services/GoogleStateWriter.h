// GoogleStateWriter: writes the Google adapter's state, so that a restart resumes the change feed
// instead of listing the whole drive again.
//
//   std::ostringstream out;
//   bool written = GoogleStateWriter::Write(&stop, {token, *ids, shared_paths, *docs, *keys}, out);
//
// The file, one item a line: the feed's page token, its FNV-1a in decimal, its MD5 between two
// "hash_sum" lines, the id tree, "public_link_ids" and the paths of items shared by link, then
// the documents and the resource keys, each section closed by kSectionEnd. GoogleStateReader
// reads it back.
#pragma once

#include <atomic>
#include <iosfwd>
#include <string>

#include "core/tsl/htrie_set.h"

class GoogleDocs;
class GoogleResourceKeys;
class RemoteFileIds;

class GoogleStateWriter {
 public:
  static constexpr const char* kHashTag = "hash_sum";
  static constexpr const char* kPublicLinksTag = "public_link_ids";
  static constexpr const char* kSectionEnd = "///section_end_marker////";

  struct Parts {
    const std::string& page_token;
    const RemoteFileIds& ids;
    const tsl::htrie_set<char>& public_link_paths;
    const GoogleDocs& docs;
    const GoogleResourceKeys& resource_keys;
  };

  // False, with its log line and metric, on the first part that could not be written or when
  // `stop` was raised; the stream then holds a cut state that no reader takes.
  static bool Write(const std::atomic<bool>* stop, const Parts& parts, std::ostream& out);

  // The token's MD5 as the file holds it: the raw digest up to its first zero byte.
  static std::string TokenDigest(const std::string& token);

 private:
  static bool WritePublicLinks(const std::atomic<bool>* stop, const tsl::htrie_set<char>& paths,
                               std::ostream& out);
};
