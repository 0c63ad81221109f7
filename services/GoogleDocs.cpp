#include "services/GoogleDocs.h"

#include <cstring>
#include <istream>
#include <ostream>

#include "core/LoggerWrapper.h"
#include "services/GoogleStateSections.h"

namespace {

bool EndsWith(const std::string& text, const char* tail) {
  std::size_t length = std::strlen(tail);
  return text.size() >= length && text.compare(text.size() - length, length, tail) == 0;
}

}  // namespace

void GoogleDocs::Add(const std::string& id, const std::string& link) {
  QWriteLocker locker(&lock_);
  docs_[id] = link;
}

bool GoogleDocs::HasDoc(const std::string& id, const std::string& name) const {
  if (!name.empty() && !EndsWith(name, ".url")) {
    return false;
  }
  QReadLocker locker(&lock_);
  return docs_.count(id) > 0;
}

std::string GoogleDocs::ShortcutContent(const std::string& id) const {
  QReadLocker locker(&lock_);
  auto found = docs_.find(id);
  if (found == docs_.end()) {
    LOG_ERROR << "No such doc for id " << id;
    return std::string();
  }
  return kShortcutHead + found->second;
}

std::uint64_t GoogleDocs::ContentSize(const std::string& link) {
  return std::strlen(kShortcutHead) + link.size();
}

void GoogleDocs::Swap(GoogleDocs& other) {
  if (&other == this) {
    return;
  }
  QWriteLocker mine(&lock_);
  QWriteLocker theirs(&other.lock_);
  docs_.swap(other.docs_);
}

std::size_t GoogleDocs::Count() const {
  QReadLocker locker(&lock_);
  return docs_.size();
}

bool GoogleDocs::Serialize(const std::atomic<bool>* stop, std::ostream& out) const {
  QReadLocker locker(&lock_);
  return GoogleStateSections::WritePairs(stop, docs_, 1, "Time for serialize google doc is over.",
                                         out);
}

bool GoogleDocs::Deserialize(const std::atomic<bool>* stop, std::istream& in,
                             GoogleDocs* registry) {
  return GoogleStateSections::ReadPairs(stop, in, kSectionEnd,
                                        "Time for deserialization google docs is over.",
                                        [registry](std::string&& id, std::string&& link) {
                                          if (!id.empty() || !link.empty()) {
                                            registry->Add(id, link);
                                          }
                                        });
}
