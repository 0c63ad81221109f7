#include "services/GoogleStateWriter.h"

#include <QByteArray>
#include <QCryptographicHash>

#include <cstring>
#include <ostream>

#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "services/Fnv1aHash.h"
#include "services/GoogleDocs.h"
#include "services/GoogleResourceKeys.h"
#include "services/RemoteFileIds.h"

namespace {

// The stop flag is looked at this often while a section is written.
constexpr std::size_t kStopCheckEvery = 20;

}  // namespace

std::string GoogleStateWriter::TokenDigest(const std::string& token) {
  QByteArray digest =
      QCryptographicHash::hash(QByteArray::fromStdString(token), QCryptographicHash::Md5);
  // Files of earlier versions hold the digest as a C string; a zero byte ends it there.
  return std::string(digest.constData(), strnlen(digest.constData(), digest.size()));
}

bool GoogleStateWriter::Write(const std::atomic<bool>* stop, const Parts& parts,
                              std::ostream& out) {
  // 1. Only a tree that exists is worth a file.
  if (!parts.ids.IsInit()) {
    LOG_ERROR << "Id tree not init yet.";
    return false;
  }
  // 2. The token and its checks. A digest holding a newline spreads over several lines, which
  // the reader joins up to the closing tag.
  out << parts.page_token << '\n'
      << Fnv1aHash()(parts.page_token) << '\n'
      << kHashTag << '\n'
      << TokenDigest(parts.page_token) << '\n'
      << kHashTag << '\n';
  // 3. The id tree.
  if (!parts.ids.Serialize(stop, out) || !out) {
    LOG_ERROR << "Failed to serialize id tree.";
    RadarsLogger::instance().SendMetric("tree_file_ids_save_failed", "1", 1);
    return false;
  }
  // 4. The sections of the adapter, each closed by the marker.
  out << kPublicLinksTag << '\n';
  if (!WritePublicLinks(stop, parts.public_link_paths, out)) {
    LOG_ERROR << "Failed to serialize public link items data";
    return false;
  }
  out << kSectionEnd << '\n';
  if (!parts.docs.Serialize(stop, out)) {
    LOG_ERROR << "Failed to serialize google docs.";
    return false;
  }
  out << kSectionEnd << '\n';
  if (!parts.resource_keys.Serialize(stop, out)) {
    LOG_ERROR << "Failed to serialize resource keys items data";
    return false;
  }
  out << kSectionEnd << '\n';
  return static_cast<bool>(out);
}

bool GoogleStateWriter::WritePublicLinks(const std::atomic<bool>* stop,
                                         const tsl::htrie_set<char>& paths, std::ostream& out) {
  std::size_t written = 0;
  for (auto it = paths.begin(); it != paths.end(); ++it) {
    if (written++ % kStopCheckEvery == 0 && stop && *stop) {
      LOG_ERROR << "Time is over while serializing items with public links.";
      return false;
    }
    out << it.key() << '\n';
  }
  return static_cast<bool>(out);
}
