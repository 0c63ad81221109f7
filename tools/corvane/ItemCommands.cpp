// mkdir, rm, rmdir, mv, quota, link, unlink: one operation of the contract each, with the
// controls the core would give from its tree (the item's hash from a listing of its folder).
#include <ostream>

#include "AccountTree.h"
#include "Command.h"
#include "core/Nodes.h"
#include "core/RemoteFileSystem.h"

namespace corvane {
namespace {

// The canonical form of argument `index`, or why there is none.
bool PathArgument(Context& context, std::size_t index, std::string* path) {
  *path = context.options.args[index];
  return ToCanonicalPath(path) && !path->empty();
}

int BadPath(Context& context, std::size_t index) {
  return Fail(context, kExitUsage,
              context.options.command + ": not an item path: " + context.options.args[index]);
}

// The item the command is about; reports and answers false when it is missing or of the other
// kind.
bool FindKind(Context& context, const std::string& path, bool folder, Item* item, int* status) {
  FileSystem::Result result = FindItem(context, path, item);
  if (result == FileSystem::SUCCEEDED && item->folder != folder) {
    result = FileSystem::FAILED;
  }
  *status = Report(context, result, context.options.command + ": " + path,
                   result == FileSystem::FAILED && item->folder != folder
                       ? (folder ? "is a file" : "is a folder")
                       : std::string());
  return result == FileSystem::SUCCEEDED;
}

// A node of the folder at `path` with its direct children, as the core's tree would hold it.
FolderNode* MakeFolderNode(Context& context, const std::string& path, FolderNode* holder,
                           FileSystem::Result* result) {
  FolderNode* node = holder->CreateFolder(SplitParent(path).second);
  RemoteFileSystem::FolderListing listing;
  *result = context.tree->List(path, &listing);
  for (const std::string& name : listing.folders) {
    node->CreateFolder(name);
  }
  for (const auto& [name, props] : listing.files) {
    node->CreateFileW(name, props.size, props.hash, props.time);
  }
  return node;
}

// OneDrive moves and renames files through RenameFileImpl and refuses MoveFileImpl.
FileSystem::Result MoveFile(RemoteFileSystem& fs, const FileNode& node, const Item& item,
                            const std::string& from, const std::string& to) {
  FileSystem::OverwriteControl control(item.hash);
  if (fs.GetServiceId() == CloudServiceId::ONEDRIVE) {
    SomeHash hash = item.hash;
    return fs.RenameFileImpl(node, control, from, FileSystem::OverwriteControl(), to, &hash);
  }
  return fs.MoveFileImpl(node, control, from, FileSystem::OverwriteControl(), to);
}

// An adapter with a feed finds the item of a link in the id tree its tree fills; one without
// serves links, or refuses them, without a tree.
FileSystem::Result PrepareForLink(Context& context) {
  return context.fs->SupportsChangesListening() ? context.tree->Prepare() : FileSystem::SUCCEEDED;
}

}  // namespace

int RunMkdir(Context& context) {
  std::string path;
  if (!PathArgument(context, 0, &path)) {
    return BadPath(context, 0);
  }
  FileSystem::Result result = context.tree->Prepare();
  if (result == FileSystem::SUCCEEDED) {
    result = context.fs->CreateFolderImpl(FileSystem::OverwriteControl(), path);
  }
  return Report(context, result, "mkdir: " + path);
}

int RunRm(Context& context) {
  std::string path;
  if (!PathArgument(context, 0, &path)) {
    return BadPath(context, 0);
  }
  Item item;
  int status = 0;
  if (!FindKind(context, path, false, &item, &status)) {
    return status;
  }
  return Report(context,
                context.fs->DeleteFileImpl(FileSystem::OverwriteControl(item.hash), path, item.size,
                                           item.mtime),
                "rm: " + path);
}

int RunRmdir(Context& context) {
  std::string path;
  if (!PathArgument(context, 0, &path)) {
    return BadPath(context, 0);
  }
  Item item;
  int status = 0;
  if (!FindKind(context, path, true, &item, &status)) {
    return status;
  }
  FolderNode holder;
  FileSystem::Result result = FileSystem::SUCCEEDED;
  FolderNode* node = MakeFolderNode(context, path, &holder, &result);
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "rmdir: " + path);
  }
  return Report(context,
                context.fs->DeleteFolderImpl(*node, FileSystem::Revision::RevisionNone(), path),
                "rmdir: " + path);
}

int RunMv(Context& context) {
  std::string from;
  std::string to;
  if (!PathArgument(context, 0, &from)) {
    return BadPath(context, 0);
  }
  if (!PathArgument(context, 1, &to)) {
    return BadPath(context, 1);
  }
  Item item;
  FileSystem::Result result = FindItem(context, from, &item);
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "mv: " + from);
  }
  // The target must be free: an empty control says so.
  FolderNode holder;
  if (item.folder) {
    FolderNode* node = MakeFolderNode(context, from, &holder, &result);
    if (result != FileSystem::SUCCEEDED) {
      return Report(context, result, "mv: " + from);
    }
    result = context.fs->MoveFolderImpl(*node, FileSystem::OverwriteControl(), from,
                                        FileSystem::OverwriteControl(), to);
  } else {
    FileNode* node = holder.CreateFileW(SplitParent(from).second, item.size, item.hash, item.mtime);
    result = MoveFile(*context.fs, *node, item, from, to);
  }
  return Report(context, result, "mv: " + from + " -> " + to);
}

int RunQuota(Context& context) {
  std::uint64_t total = 0;
  std::uint64_t used = 0;
  FileSystem::Result result = context.fs->GetCloudSize(&total, &used);
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "quota: GetCloudSize");
  }
  std::uint64_t free = total > used ? total - used : 0;
  if (context.options.json) {
    context.out << "{\"total\": " << total << ", \"used\": " << used << ", \"free\": " << free
                << "}" << std::endl;
  } else {
    context.out << "total  " << FormatBytes(total) << "\nused   " << FormatBytes(used)
                << "\nfree   " << FormatBytes(free) << std::endl;
  }
  return 0;
}

int RunLink(Context& context) {
  std::string path;
  if (!PathArgument(context, 0, &path)) {
    return BadPath(context, 0);
  }
  std::string link;
  FileSystem::Result result = PrepareForLink(context);
  if (result == FileSystem::SUCCEEDED) {
    result = context.fs->GetPublicLink(path, false, &link);
  }
  if (result != FileSystem::SUCCEEDED) {
    return Report(context, result, "link: " + path);
  }
  context.out << (context.options.json
                      ? "{\"path\": " + JsonString(path) + ", \"link\": " + JsonString(link) + "}"
                      : link)
              << std::endl;
  return 0;
}

int RunUnlink(Context& context) {
  std::string path;
  if (!PathArgument(context, 0, &path)) {
    return BadPath(context, 0);
  }
  FileSystem::Result result = PrepareForLink(context);
  if (result == FileSystem::SUCCEEDED) {
    result = context.fs->ClosePublicLink(path);
  }
  return Report(context, result, "unlink: " + path);
}

}  // namespace corvane
