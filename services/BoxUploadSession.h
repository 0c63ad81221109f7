// BoxUploadSession: one chunked upload to Box, as the session store keeps it between tries: the
// session Box made (id, part size, part URL, expiry, part count), the parts it accepted, and the
// file's hash, size and the offset reached.
//
//   rest_api::BoxUploadSession session;
//   if (!rest_api::ParseUploadSession(answer, &session)) LOG_ERROR << "Invalid upload session
//   params."; std::string body = rest_api::CommitBody(session.parts, attributes);
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/Json.h"
#include "core/SomeHash.h"

namespace rest_api {

struct BoxUploadPart {
  std::string part_id;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::string sha1;
};

struct BoxUploadSession {
  std::string id;
  std::uint64_t part_size = 0;
  std::string upload_part_url;
  std::uint64_t expires_at = 0;  // seconds of the Unix epoch
  std::uint64_t total_parts = 0;
  std::vector<BoxUploadPart> parts;
  std::string target_id;  // the file a new version is for; empty for a new file
  // What the store matches a new try against, and where the server stands.
  HashBox hash;
  std::uint64_t size = 0;
  std::uint64_t offset = 0;
};

// The five fields of a session answer; false when one is missing or unusable.
bool ParseUploadSession(const utils::json::json_tree& answer, BoxUploadSession* session);
// The "part" of an upload part answer.
bool ParseUploadedPart(const utils::json::json_tree& answer, BoxUploadPart* part);
// The "entries" of a parts listing, in offset order.
bool ParsePartsList(const utils::json::json_tree& answer, std::vector<BoxUploadPart>* parts);
// The bytes the server holds from the start on: parts that follow each other from offset 0.
std::uint64_t ContiguousBytes(const std::vector<BoxUploadPart>& parts,
                              std::vector<BoxUploadPart>* kept);
// {"parts":[{"part_id":..,"offset":N,"size":N},...],"attributes":{...}}
std::string CommitBody(const std::vector<BoxUploadPart>& parts, const std::string& attributes);
// The "Digest: sha=" value of a SHA-1 given in hexadecimal.
std::string DigestOfHexSha1(const std::string& hex);

}  // namespace rest_api
