// GoogleDocs: the registry of the account's Google documents (Docs, Sheets, Slides...), which
// have no bytes on the Drive. To the disk each is a read-only shortcut file "NAME.url" whose
// content points at the document's web page; the registry keeps that link by Drive id.
//
//   docs.Add(id, "https://docs.google.com/document/d/ID/edit");
//   if (docs.HasDoc(id, "Report.url")) content = docs.ShortcutContent(id);
//
// A tree download fills a registry of its own and swaps it in once the tree is complete. Safe
// from any thread.
#pragma once

#include <QReadWriteLock>

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <unordered_map>

class GoogleDocs {
 public:
  static constexpr const char* kShortcutHead = "[InternetShortcut]\nURL=";
  static constexpr const char* kSectionEnd = "///section_end_marker////";

  void Add(const std::string& id, const std::string& link);
  // A name that is neither empty nor ends in ".url" is a plain file, whatever its id.
  bool HasDoc(const std::string& id, const std::string& name) const;
  std::string ShortcutContent(const std::string& id) const;
  static std::uint64_t ContentSize(const std::string& link);
  void Swap(GoogleDocs& other);
  std::size_t Count() const;

  // Two lines an entry, id then link; the caller ends the section with kSectionEnd.
  bool Serialize(const std::atomic<bool>* stop, std::ostream& out) const;
  static bool Deserialize(const std::atomic<bool>* stop, std::istream& in, GoogleDocs* registry);

 private:
  mutable QReadWriteLock lock_;
  std::unordered_map<std::string, std::string> docs_;
};
