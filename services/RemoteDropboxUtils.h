// The Dropbox answer interpreters shared by the adapter and the metainfo writer, and the header of
// a content call.
//
//   utils::json::json_tree json;
//   URLProcessor::Result transport;
//   FileSystem::Result result = ParseRpcResponse(&json, client, &transport);
//   if (result == FileSystem::SUCCEEDED && !URLProcessor::IsSuccessHttpCode(code))
//     result = GetRpcError(json, client);
//
// Dropbox's error tag is never parsed as a structure: "error_summary" is one string and every
// test is a substring search in it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/FileSystem.h"
#include "core/Json.h"
#include "core/URLProcessor.h"

// Reads the whole answer of the request the client has sent, into `*json` when it is JSON.
FileSystem::Result ParseRpcResponse(utils::json::json_tree* json,
                                    const std::shared_ptr<URLProcessor>& client,
                                    URLProcessor::Result* result);

// The metainfo writer's reading of a failed answer: only 401, 409 and 429 are failures to it.
FileSystem::Result GetRpcError(const utils::json::json_tree& json,
                               const std::shared_ptr<URLProcessor>& client);

// The one header of a content call. Dropbox refuses raw non-ASCII in a header, so every
// character from 0x7F on travels as a JSON \uXXXX escape (two for a character beyond U+FFFF).
std::vector<std::string> MakeApiArgHeaders(const std::string& arg);

namespace dropbox {

// The result an endpoint error's summary gives by the substring table, the last hit winning.
// `malformed_path` is what "malformed_path" gives (the adapter and the metainfo writer differ).
FileSystem::Result ResultOfErrorSummary(const std::string& summary,
                                        FileSystem::Result malformed_path);

// The "error_summary" of an endpoint error (a 409), logged with its message.
std::string LogEndpointError(const utils::json::json_tree& json);

// The string at `key` of an object, `fallback` when the key is missing or not a scalar.
std::string ReadString(const utils::json::json_tree& json, const std::string& dotted_key,
                       const std::string& fallback = std::string());
// An unsigned number at `key`; nothing for a missing key or text that is not one.
bool ReadUint64(const utils::json::json_tree& json, const std::string& dotted_key,
                std::uint64_t* value);
// Decimal text, all of it; false for anything else.
bool ParseUint64(const std::string& text, std::uint64_t* value);
bool ReadBool(const utils::json::json_tree& json, const std::string& dotted_key, bool fallback);

// Seconds the service asked to wait: "error.retry_after" as Dropbox documents it, else the
// top-level "retry_after"; 0 when neither is there.
std::uint64_t RetryAfterSeconds(const utils::json::json_tree& json);

}  // namespace dropbox
