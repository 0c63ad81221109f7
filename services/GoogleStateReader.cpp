#include "services/GoogleStateReader.h"

#include <charconv>

#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "services/Fnv1aHash.h"
#include "services/GoogleDocs.h"
#include "services/GoogleResourceKeys.h"
#include "services/GoogleStateWriter.h"
#include "services/RemoteFileIds.h"

namespace {

// The stop flag is looked at this often while a section is read.
constexpr std::size_t kStopCheckEvery = 20;
// A 16-byte digest holds at most 16 newlines: more lines before the closing tag is no digest.
constexpr int kMostDigestLines = 17;

void Metric(const char* name) {
  RadarsLogger::instance().SendMetric(name, "1", 1);
}

bool WrongToken() {
  LOG_ERROR << "Wrong token value, deserialize failed.";
  Metric("tree_file_wrong_token");
  return false;
}

}  // namespace

GoogleStateReader::GoogleStateReader()
    : ids(std::make_shared<RemoteFileIds>()),
      docs(std::make_shared<GoogleDocs>()),
      resource_keys(std::make_shared<GoogleResourceKeys>()) {}

GoogleStateReader::~GoogleStateReader() = default;

bool GoogleStateReader::Read(const std::atomic<bool>* stop, std::stringstream& in) {
  // 1. Too late already.
  if (stop && *stop) {
    LOG_ERROR << "Too long time, deserialization interrupted.";
    return false;
  }
  // 2. The token and its checks, then the id tree.
  if (!ReadToken(in) || !ReadTokenDigest(in) || !ReadIds(stop, in)) {
    return false;
  }
  // 3. The adapter's sections.
  if (!ReadPublicLinks(stop, in)) {
    LOG_ERROR << "Failed to deserialize public link items.";
    return false;
  }
  if (!GoogleDocs::Deserialize(stop, in, docs.get())) {
    LOG_ERROR << "Failed to deserialize google docs.";
    Metric("google_doc_restore_failed");
    return false;
  }
  if (!GoogleResourceKeys::Deserialize(stop, in, GoogleStateWriter::kSectionEnd,
                                       resource_keys.get())) {
    LOG_ERROR << "Failed to deserialize resource keys.";
    Metric("resource_keys_restore_failed");
    return false;
  }
  return true;
}

bool GoogleStateReader::ReadToken(std::stringstream& in) {
  // 1. The token.
  if (!std::getline(in, page_token) || page_token.empty()) {
    LOG_ERROR << "Empty token from file.";
    Metric("tree_file_empty_token");
    return false;
  }
  // 2. Its FNV-1a: the whole line a decimal number, or the token is taken for a wrong one.
  std::string line;
  std::getline(in, line);
  unsigned long long fnv = 0;
  auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), fnv);
  if (line.empty() || error != std::errc() || end != line.data() + line.size()) {
    LOG_ERROR << "Invalid token check \"" << line << "\".";
    return WrongToken();
  }
  if (fnv != Fnv1aHash()(page_token)) {
    return WrongToken();
  }
  return true;
}

bool GoogleStateReader::ReadTokenDigest(std::stringstream& in) {
  // 1. A file of an earlier form goes on with its id tree here.
  const std::streampos start = in.tellg();
  std::string line;
  if (!std::getline(in, line) || line != GoogleStateWriter::kHashTag) {
    in.clear();
    in.seekg(start);
    return true;
  }
  // 2. The digest up to the closing tag, its lines joined again by the newlines they stood for.
  std::string digest;
  for (int lines = 0; std::getline(in, line) && line != GoogleStateWriter::kHashTag; ++lines) {
    if (lines == kMostDigestLines) {
      return WrongToken();
    }
    digest += (lines == 0 ? "" : "\n") + line;
  }
  if (!in || digest != GoogleStateWriter::TokenDigest(page_token)) {
    LOG_ERROR << "Wrong token value, got \"" << digest;
    Metric("tree_file_wrong_token");
    return false;
  }
  return true;
}

bool GoogleStateReader::ReadIds(const std::atomic<bool>* stop, std::stringstream& in) {
  // The id reader takes a stream that ends inside its records for a whole one: without the tag
  // that follows them the file was cut.
  if (!RemoteFileIds::Deserialize(stop, in, ids.get()) || !in) {
    LOG_ERROR << "Failed to deserialize id tree.";
    Metric("tree_file_ids_restore_failed");
    return false;
  }
  if (!ids->IsInit()) {
    LOG_ERROR << "Failed to deserialize ids tree.";
    Metric("tree_file_ids_not_init");
    return false;
  }
  return true;
}

bool GoogleStateReader::ReadPublicLinks(const std::atomic<bool>* stop, std::stringstream& in) {
  std::string path;
  for (std::size_t entries = 0;; ++entries) {
    if (entries % kStopCheckEvery == 0 && stop && *stop) {
      return false;
    }
    if (!std::getline(in, path)) {
      return false;
    }
    if (path == GoogleStateWriter::kSectionEnd) {
      return true;
    }
    public_link_paths.insert(path);
  }
}
