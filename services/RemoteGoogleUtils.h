// The Drive API v3 exchange of the Google adapter: one JSON request and its classification, the
// mapping of failures of the other requests, and Drive's MD5 text.
//
//   utils::json::json_tree json;
//   URLProcessorResult url_result;
//   bool rate_limited = false;
//   FileSystem::Result result = GoogleRequest("/files/root", "id", http.get(), &json,
//                                             &url_result, &rate_limited);
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "core/FileSystem.h"
#include "core/Json.h"
#include "core/SomeHash.h"
#include "core/URLProcessor.h"

namespace google {

constexpr const char* kDriveApiBase = "/drive/v3";
constexpr const char* kUploadApiBase = "/upload/drive/v3";
// Recent files are listed by the v2 API only.
constexpr const char* kDriveApiV2Base = "/drive/v2";
constexpr const char* kFolderMimeType = "application/vnd.google-apps.folder";
constexpr const char* kGoogleAppsMimePrefix = "application/vnd.google-apps.";

using QueryParams = std::vector<std::pair<std::string, std::string>>;

// `path` with the parameters appended, each value percent-encoded, in the order given.
std::string WithQuery(const std::string& path, const QueryParams& params);

// The MD5 of Drive's "md5Checksum": 32 hexadecimal digits. Another length gives the zero hash; a
// character that is no digit keeps the bytes read before it and zero after.
HashGoogle HashFromHex(const std::string& text);
HashGoogle HashOfBytes(const std::string& bytes);

}  // namespace google

// A GET of the Drive API at `path` (which starts with "/" and may carry a query), with "fields"
// added when not empty. `*rate_limited_out` tells a rate limit of Drive, which is FAILED here:
// the caller waits and tries again. `api_base` is the v3 API's unless given.
FileSystem::Result GoogleRequest(const std::string& path, const std::string& fields,
                                 URLProcessor* http, utils::json::json_tree* json_out,
                                 URLProcessorResult* result_out, bool* rate_limited_out,
                                 const char* api_base = google::kDriveApiBase);

// The Result of a request that is not a JSON read (PATCH, DELETE, upload steps), logged.
FileSystem::Result MapGoogleFailure(URLProcessor* http, URLProcessorResult url_result);
