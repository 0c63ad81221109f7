#include "services/DropboxSelfMadeFilter.h"

#include <functional>

#include "core/Nodes.h"
#include "core/StringUtils.h"

namespace {

std::string Join(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

HashDropbox DropboxHashOf(const SomeHash& hash) {
  return hash.GetType() == SomeHash::DROPBOX ? hash.GetHashDropbox() : HashDropbox();
}

}  // namespace

std::size_t dropbox::ExpectedUploadHash::operator()(
    const dropbox::ExpectedRemoteChangeUpload& record) const {
  std::size_t seed = std::hash<std::uint64_t>()(record.size);
  auto mix = [&seed](std::size_t value) { seed ^= value + 0x9e3779b9 + (seed << 6) + (seed >> 2); };
  if (record.size != 0) {
    mix(std::hash<std::string>()(record.hash.ToHexString()));
  }
  mix(std::hash<std::string>()(record.path));
  return seed;
}

bool dropbox::ExpectedUploadEqual::operator()(const dropbox::ExpectedRemoteChangeUpload& a,
                                              const dropbox::ExpectedRemoteChangeUpload& b) const {
  return a.size == b.size && (a.size == 0 || a.hash == b.hash) && a.path == b.path;
}

void DropboxSelfMadeFilter::ExpectUpload(const std::string& path, const HashDropbox& hash,
                                         std::uint64_t size) {
  uploads_.Expect(dropbox::ExpectedRemoteChangeUpload{hash, size, ToLower(path)});
}

void DropboxSelfMadeFilter::ExpectFolder(const std::string& path) {
  folders_.Expect(ToLower(path));
}

void DropboxSelfMadeFilter::ExpectDelete(const std::string& path) {
  deletes_.Expect(ToLower(path));
}

void DropboxSelfMadeFilter::ExpectFolderDelete(const FolderNode& folder, const std::string& path) {
  ExpectDelete(path);
  for (auto file = folder.FilesBegin(); file != folder.FilesEnd(); ++file) {
    ExpectDelete(Join(path, file->GetName()));
  }
  for (auto child = folder.FoldersBegin(); child != folder.FoldersEnd(); ++child) {
    ExpectFolderDelete(**child, Join(path, child->GetName()));
  }
}

void DropboxSelfMadeFilter::ExpectFileMove(const FileNode& file, const std::string& from,
                                           const std::string& to) {
  ExpectDelete(from);
  ExpectUpload(to, DropboxHashOf(file.hash), file.size);
}

void DropboxSelfMadeFilter::ExpectFolderMove(const FolderNode& folder, const std::string& from,
                                             const std::string& to) {
  ExpectFolderDelete(folder, from);
  ExpectTreeCreated(folder, to);
}

void DropboxSelfMadeFilter::ExpectTreeCreated(const FolderNode& folder, const std::string& path) {
  ExpectFolder(path);
  for (auto file = folder.FilesBegin(); file != folder.FilesEnd(); ++file) {
    ExpectUpload(Join(path, file->GetName()), DropboxHashOf(file->hash), file->size);
  }
  for (auto child = folder.FoldersBegin(); child != folder.FoldersEnd(); ++child) {
    ExpectTreeCreated(**child, Join(path, child->GetName()));
  }
}

bool DropboxSelfMadeFilter::IsSelfMadeChange(const FileSystem::Change& change) {
  // 1. Nothing expected: nothing to look up.
  if (uploads_.Empty() && folders_.Empty() && deletes_.Empty()) {
    return false;
  }
  // 2. The record of the change's kind, by its lower-case path.
  const std::string path = ToLower(change.path);
  switch (change.type) {
    case FileSystem::Change::FILE_CREATE:
      return uploads_.Take(
          dropbox::ExpectedRemoteChangeUpload{DropboxHashOf(change.hash), change.size, path});
    case FileSystem::Change::FOLDER_CREATE:
      return folders_.Take(path);
    case FileSystem::Change::FILE_OR_FOLDER_DELETE:
      return deletes_.Take(path);
    default:
      return false;
  }
}
