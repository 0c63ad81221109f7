#include "services/RemoteDropboxUtils.h"

#include <QString>

#include <charconv>
#include <cstdio>

#include "core/LoggerWrapper.h"

namespace {

constexpr char kJsonContentType[] = "application/json";
constexpr std::uint32_t kReadBlockSize = 4096;

struct SummaryRow {
  const char* substring;
  FileSystem::Result result;
};

// Evaluated in order; a later hit overwrites an earlier one, so "no_write_permission" ends as
// ACCESS_DENIED although its first row says FAILED.
constexpr SummaryRow kSummaryRows[] = {
    {"not_file", FileSystem::CONFLICT},
    {"not_folder", FileSystem::CONFLICT},
    {"conflict", FileSystem::CONFLICT},
    {"no_write_permission", FileSystem::FAILED},
    {"insufficient_space", FileSystem::NO_SPACE},
    {"email_not_verified", FileSystem::FAILED},
    {"access_denied", FileSystem::FAILED},
    {"disallowed_name", FileSystem::BADNAM},
    {"restricted_content", FileSystem::BLOCKED},
    {"no_write_permission", FileSystem::ACCESS_DENIED},
    {"malformed_path", FileSystem::BADNAM},
};

std::string ContentTypeOf(const URLProcessor& client) {
  return GetValueFromHTTPHeaders(client.GetResponseHeaders(), "Content-Type", true);
}

}  // namespace

FileSystem::Result ParseRpcResponse(utils::json::json_tree* json,
                                    const std::shared_ptr<URLProcessor>& client,
                                    URLProcessor::Result* result) {
  // 1. The whole body, then how the request ended.
  std::string body;
  InputStream* stream = client->GetInputStream();
  StreamResult read = stream ? stream->ReadAllTo(&body, kReadBlockSize) : StreamResult::FAILED;
  *result = client->Finish();
  // 2. Stopped, unread, or not answered.
  if (*result == URLProcessor::Result::STOPPED || read == StreamResult::STOPPED) {
    LOG_INFO << "Stopped.";
    return FileSystem::STOPPED;
  }
  if (read == StreamResult::FAILED || body.empty()) {
    LOG_ERROR << "Failed reading response from dropbox. Result: " << read << ".";
    return FileSystem::FAILED;
  }
  if (*result == URLProcessor::Result::NETWORK_FAILED) {
    LOG_WARNING << "Request failed: NETWORK_FAILED.";
    return FileSystem::FAILED;
  }
  const int code = client->GetResponseCode();
  if (code == 401) {
    LOG_WARNING << "Dropbox RPC returned authorization error.";
    return FileSystem::AUTH_INVALID;
  }
  // 3. Only JSON is read, compared to the byte. Dropbox documents that a 429 may come as plain
  // text (still a rate limit, judged without a body) and that a 5xx is its servers' passing
  // trouble, to be tried again.
  if (ContentTypeOf(*client) != kJsonContentType) {
    LOG_ERROR << "Got not json but: " << body;
    if (code == 429) {
      json->clear();
      return FileSystem::SUCCEEDED;
    }
    return code >= 500 ? FileSystem::FAILED : FileSystem::FATAL;
  }
  std::string error;
  if (!utils::json::Parse(body, json, &error)) {
    LOG_ERROR << "Failed parsing dropbox response json. Dropbox sent: \n" << body;
    return FileSystem::FAILED;
  }
  return FileSystem::SUCCEEDED;
}

FileSystem::Result GetRpcError(const utils::json::json_tree& json,
                               const std::shared_ptr<URLProcessor>& client) {
  const int code = client->GetResponseCode();
  if (code == 401) {
    LOG_WARNING << "Dropbox API token is no longer valid.";
    return FileSystem::AUTH_INVALID;
  }
  if (code == 429) {
    return FileSystem::FAILED;
  }
  if (code != 409) {
    return FileSystem::SUCCEEDED;
  }
  // The writer only needs to know that the call failed: the summary's table would not change
  // the answer, so only its log lines remain.
  const std::string summary = dropbox::LogEndpointError(json);
  if (summary.find("not_found") != std::string::npos) {
    return FileSystem::CONFLICT;
  }
  if (summary.find("too_many_write_operations") != std::string::npos) {
    LOG_WARNING << "Encountered too many write operation, waiting for a second...";
  }
  utils::json::Log(json, false);
  LOG_WARNING << "Dropbox API RPC call failed for unknown reason with HTTP status code: " << code
              << ".";
  return FileSystem::FAILED;
}

std::vector<std::string> MakeApiArgHeaders(const std::string& arg) {
  std::string escaped;
  escaped.reserve(arg.size());
  const QString text = QString::fromUtf8(arg.data(), static_cast<int>(arg.size()));
  for (const QChar c : text) {
    if (c.unicode() < 0x7F) {
      escaped += static_cast<char>(c.unicode());
    } else {
      char unit[8];
      std::snprintf(unit, sizeof(unit), "\\u%04x", static_cast<unsigned>(c.unicode()));
      escaped += unit;
    }
  }
  return {"Dropbox-API-Arg: " + escaped};
}

namespace dropbox {

FileSystem::Result ResultOfErrorSummary(const std::string& summary,
                                        FileSystem::Result malformed_path) {
  FileSystem::Result result = FileSystem::FAILED;
  for (const SummaryRow& row : kSummaryRows) {
    if (summary.find(row.substring) != std::string::npos) {
      result = std::string(row.substring) == "malformed_path" ? malformed_path : row.result;
    }
  }
  return result;
}

std::string ReadString(const utils::json::json_tree& json, const std::string& dotted_key,
                       const std::string& fallback) {
  auto node = utils::json::Child(json, dotted_key);
  if (!node || !node->empty()) {
    return fallback;
  }
  return node->data();
}

std::string LogEndpointError(const utils::json::json_tree& json) {
  const std::string summary = ReadString(json, "error_summary", "no_summary");
  const std::string message = ReadString(json, "error_message", "no_message");
  LOG_WARNING << "Dropbox API RPC call returned endpoint error: " << summary << ": " << message;
  if (summary.empty() && message.empty()) {
    LOG_WARNING << "Full json response was: " << utils::json::ToString(json, false);
  }
  return summary;
}

bool ReadUint64(const utils::json::json_tree& json, const std::string& dotted_key,
                std::uint64_t* value) {
  auto node = utils::json::Child(json, dotted_key);
  if (!node || !node->empty()) {
    return false;
  }
  return ParseUint64(node->data(), value);
}

bool ParseUint64(const std::string& text, std::uint64_t* value) {
  const char* end = text.data() + text.size();
  auto parsed = std::from_chars(text.data(), end, *value);
  return parsed.ec == std::errc() && parsed.ptr == end && !text.empty();
}

bool ReadBool(const utils::json::json_tree& json, const std::string& dotted_key, bool fallback) {
  const std::string text = ReadString(json, dotted_key);
  if (text == "true") {
    return true;
  }
  return text == "false" ? false : fallback;
}

std::uint64_t RetryAfterSeconds(const utils::json::json_tree& json) {
  std::uint64_t seconds = 0;
  if (ReadUint64(json, "error.retry_after", &seconds) ||
      ReadUint64(json, "retry_after", &seconds)) {
    return seconds;
  }
  return 0;
}

}  // namespace dropbox
