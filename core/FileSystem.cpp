#include "core/FileSystem.h"

#include <sstream>

namespace {

constexpr const char* kResultNames[] = {"SUCCEEDED",
                                        "STOPPED",
                                        "FAILED",
                                        "FATAL",
                                        "CONFLICT",
                                        "FORBIDDEN",
                                        "AUTH_INVALID",
                                        "BLOCKED",
                                        "OUTDATED",
                                        "PUBLIC_LINK_LIMIT",
                                        "TOO_EARLY_TO_PROCESS",
                                        "TOO_LARGE",
                                        "NAME_TOO_LONG",
                                        "BADNAM",
                                        "NOT_PERMITTED_SYMLINK",
                                        "VIRUS_INFECTED",
                                        "NO_SPACE",
                                        "ACCESS_DENIED",
                                        "ITEM_MISSED",
                                        "NOT_SUPPORTED"};

constexpr const char* kChangeNames[] = {"FILE_CREATE",
                                        "FILE_DELETE",
                                        "FILE_RENAME",
                                        "FILE_MODIFY",
                                        "FOLDER_CREATE",
                                        "FOLDER_DELETE",
                                        "FOLDER_CLEAR",
                                        "FOLDER_RENAME",
                                        "FOLDER_UPDATE",
                                        "FILE_OR_FOLDER_DELETE",
                                        "REMOVE",
                                        "RENAME",
                                        "REVISION_SET",
                                        "FREE_SIZE_SET",
                                        "TOTAL_SIZE_SET",
                                        "TOTAL_SIZE_INCREASE",
                                        "TOTAL_SIZE_DECREASE",
                                        "USED_SIZE_INCREASE",
                                        "USED_SIZE_DECREASE",
                                        "EXPORT",
                                        "UNSHARE",
                                        "MOUNT",
                                        "UNMOUNT",
                                        "SET_OWNER",
                                        "ADD_USER",
                                        "DELETE_USER",
                                        "GRANT_ACCESS",
                                        "ORIGIN",
                                        "PUBLIC_LINK",
                                        "DUMMY"};

template <typename Table>
const char* NameIn(const Table& table, long value) {
  constexpr long kCount = static_cast<long>(sizeof(Table) / sizeof(table[0]));
  return value >= 0 && value < kCount ? table[value] : "Unknown type";
}

}  // namespace

const char* FileSystem::ResultName(Result result) {
  return NameIn(kResultNames, result);
}

std::ostream& operator<<(std::ostream& out, FileSystem::Result result) {
  return out << FileSystem::ResultName(result);
}

void FileSystem::SetFailReason(URLProcessorResult result, int http_code) {
  if (result == URLProcessorResult::STOPPED) {
    fail_reason_ = FAIL_REASON_STOPPED;
  } else if (IsNetworkErrorResult(result)) {
    fail_reason_ = FAIL_REASON_NETWORK;
  } else if (http_code == 401) {
    fail_reason_ = FAIL_REASON_AUTHORIZATION;
  } else if (http_code == 429) {
    fail_reason_ = FAIL_REASON_RATE_LIMIT;
  } else if (http_code >= 300 || result == URLProcessorResult::HTTP_FAILED) {
    fail_reason_ = FAIL_REASON_HTTP;
  } else {
    fail_reason_ = FAIL_REASON_NONE;
  }
}

bool FileSystem::IsCanonicalPath(std::string_view path) {
  if (path.empty()) {
    return true;
  }
  std::size_t start = 0;
  for (;;) {
    std::size_t end = path.find('/', start);
    std::string_view segment =
        path.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (segment.empty() || segment == "." || segment == ".." ||
        segment.find('\0') != std::string_view::npos) {
      return false;
    }
    if (end == std::string_view::npos) {
      return true;
    }
    start = end + 1;
  }
}

bool FileSystem::IsRelativeCanonicalPath(std::string_view path) {
  return !path.empty() && IsCanonicalPath(path);
}

const char* FileSystem::Change::TypeName(Type type) {
  return NameIn(kChangeNames, type);
}

std::string FileSystem::Change::ToString() const {
  std::ostringstream out;
  out << TypeName(type) << " \"" << path << '"';
  if (!old_path.empty()) {
    out << " from \"" << old_path << '"';
  }
  out << " size " << size << " time " << time;
  if (!hash.IsEmpty()) {
    out << " hash " << hash;
  }
  return out.str();
}

bool FileSystem::Change::IsFileChange() const {
  return type == FILE_CREATE || type == FILE_DELETE || type == FILE_RENAME || type == FILE_MODIFY;
}

bool FileSystem::Change::IsDeletionType() const {
  return type == FILE_DELETE || type == FOLDER_DELETE || type == FILE_OR_FOLDER_DELETE ||
         type == REMOVE;
}

// What NTFS holds, the disk the core shows being a Windows one.
FileSystem::LengthLimits FileSystem::GetMaxSupportedPathLength() const {
  LengthLimits limits;
  limits.first = 32767;
  return limits;
}

FileSystem::LengthLimits FileSystem::GetMaxSupportedNameLength() const {
  LengthLimits limits;
  limits.first = 255;
  return limits;
}

FileSystem::Result FileSystem::ReadInodeImpl(const std::string&, std::uint64_t*) {
  return NOT_SUPPORTED;
}

utils::ValueOrError<FileSystem::FileProperties, FileSystem::Result> FileSystem::ReadFilePropsImpl(
    std::string_view) {
  return NOT_SUPPORTED;
}

FileSystem::Result FileSystem::RenameFileImpl(const FileNode& file,
                                              const OverwriteControl& from_control,
                                              const std::string& from,
                                              const OverwriteControl& to_control,
                                              const std::string& to, SomeHash*) {
  return MoveFileImpl(file, from_control, from, to_control, to);
}
