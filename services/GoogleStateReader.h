// GoogleStateReader: reads the Google adapter's state written by GoogleStateWriter (or by an
// earlier version, without the "hash_sum" lines) into fresh stores of its own. The adapter puts
// them in place only once the whole file has been read, so a bad file changes nothing.
//
//   GoogleStateReader reader;
//   if (reader.Read(&stop, in)) { ids->Swap(*reader.ids); ... token = reader.page_token; }
//
// Each failure logs its line and sends its metric.
#pragma once

#include <atomic>
#include <memory>
#include <sstream>
#include <string>

#include "core/tsl/htrie_set.h"

class GoogleDocs;
class GoogleResourceKeys;
class RemoteFileIds;

class GoogleStateReader {
 public:
  GoogleStateReader();
  ~GoogleStateReader();

  bool Read(const std::atomic<bool>* stop, std::stringstream& in);

  std::string page_token;
  std::shared_ptr<RemoteFileIds> ids;
  tsl::htrie_set<char> public_link_paths;
  std::shared_ptr<GoogleDocs> docs;
  std::shared_ptr<GoogleResourceKeys> resource_keys;

 private:
  bool ReadToken(std::stringstream& in);
  // The MD5 lines after the first tag, when the file has them; else the stream is left where it
  // was, at the start of the id tree.
  bool ReadTokenDigest(std::stringstream& in);
  bool ReadIds(const std::atomic<bool>* stop, std::stringstream& in);
  bool ReadPublicLinks(const std::atomic<bool>* stop, std::stringstream& in);
};
