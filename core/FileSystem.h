// FileSystem: the vocabulary every adapter answers in (Result), the items of a change feed
// (Change), and the fail reason kept from the last failed request.
//
//   FileSystem::Result result = adapter->CreateFolderImpl(nullptr, "a/b");
//   LOG_WARNING << "Failed: " << result;  // prints "CONFLICT", ...
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "core/SomeHash.h"
#include "core/Stoppable.h"
#include "core/URLProcessorResult.h"
#include "core/ValueOrError.h"

class FileNode;
class FolderNode;

class FileSystem : public virtual Stoppable {
 public:
  enum Result : std::int32_t {
    SUCCEEDED = 0,
    STOPPED = 1,
    FAILED = 2,    // may be retried
    FATAL = 3,     // stops the account's work
    CONFLICT = 4,  // the caller's tree is behind the server: reload
    FORBIDDEN = 5,
    AUTH_INVALID = 6,
    BLOCKED = 7,
    OUTDATED = 8,
    PUBLIC_LINK_LIMIT = 9,
    TOO_EARLY_TO_PROCESS = 10,
    TOO_LARGE = 11,
    NAME_TOO_LONG = 12,
    BADNAM = 13,
    NOT_PERMITTED_SYMLINK = 14,
    VIRUS_INFECTED = 15,
    NO_SPACE = 16,
    ACCESS_DENIED = 17,
    ITEM_MISSED = 18,
    NOT_SUPPORTED = 19,
  };
  static const char* ResultName(Result result);  // "Unknown type" beyond the table

  // Why the last request failed, as far as the transport and the HTTP code tell.
  enum FailReason : std::int32_t {
    FAIL_REASON_NONE = 0,
    FAIL_REASON_NETWORK = 1,     // no answer, or the exchange broke
    FAIL_REASON_HTTP = 2,        // the server answered with a failure code
    FAIL_REASON_RATE_LIMIT = 3,  // the service asked us to slow down
    FAIL_REASON_STOPPED = 4,
    FAIL_REASON_AUTHORIZATION = 5,  // 401: the credentials were refused
  };

  class Change;
  class Revision;
  struct OverwriteControl;
  struct FileProperties;
  struct LengthLimits;

  // The operations on items, in the order of the core's table. Paths are canonical. An operation
  // with a default here is one most file systems answer alike; the others each adapter gives.

  // Next block of the open upload, in order and without gaps.
  virtual Result WriteFile(const std::uint8_t* data, std::uint32_t size) = 0;
  virtual FailReason GetFailReason() const { return fail_reason_.load(); }
  virtual LengthLimits GetMaxSupportedPathLength() const;
  virtual LengthLimits GetMaxSupportedNameLength() const;
  // Ends the open read or upload; an upload writes the server's hash into `props->hash` (`props`
  // may be null).
  virtual Result CloseFile(FileProperties* props) = 0;
  // Abandons the open transfer and leaves the file system usable.
  virtual Result InterruptFile() = 0;
  virtual Result CreateFolderImpl(const OverwriteControl& control, const std::string& path) = 0;
  virtual Result DeleteFileImpl(const OverwriteControl& control, const std::string& path,
                                std::uint64_t size, std::uint64_t time) = 0;
  virtual Result DeleteFolderImpl(const FolderNode& folder, const Revision& revision,
                                  const std::string& path) = 0;
  // `*resume_offset`: how much of the content the server holds already; the caller sends the rest.
  virtual Result OpenForCreate(const OverwriteControl& control, const std::string& path,
                               const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                               std::uint64_t* resume_offset, bool flag) = 0;
  virtual Result OpenForRead(const std::string& path, std::uint64_t offset, std::uint64_t limit,
                             std::uint64_t size, const SomeHash& hash) = 0;
  virtual Result OpenForRewrite(const OverwriteControl& control, const std::string& path,
                                const SomeHash& hash, std::uint64_t size, std::uint64_t time,
                                std::uint64_t* resume_offset) = 0;
  virtual Result ReadFile(std::uint8_t* buffer, std::uint32_t size, std::uint32_t* done) = 0;
  // Neither is known without asking the service item by item: NOT_SUPPORTED unless overridden.
  virtual Result ReadInodeImpl(const std::string& path, std::uint64_t* inode);
  virtual utils::ValueOrError<FileProperties, Result> ReadFilePropsImpl(std::string_view path);
  // A rename is a move to another name here; `*hash` stays, the content being the same.
  virtual Result RenameFileImpl(const FileNode& file, const OverwriteControl& from_control,
                                const std::string& from, const OverwriteControl& to_control,
                                const std::string& to, SomeHash* hash);
  virtual Result MoveFileImpl(const FileNode& file, const OverwriteControl& from_control,
                              const std::string& from, const OverwriteControl& to_control,
                              const std::string& to) = 0;
  virtual Result MoveFolderImpl(const FolderNode& folder, const OverwriteControl& from_control,
                                const std::string& from, const OverwriteControl& to_control,
                                const std::string& to) = 0;

  // True for a path in the form the core uses: relative, no leading or trailing "/", no empty,
  // "." or ".." segment. The empty path (the root) is canonical.
  static bool IsCanonicalPath(std::string_view path);
  // A canonical path that names an item below the root (not empty).
  static bool IsRelativeCanonicalPath(std::string_view path);

 protected:
  virtual void SetFailReason(URLProcessorResult result, int http_code);
  void SetFailReasonValue(FailReason reason) { fail_reason_ = reason; }

 private:
  // A feed's thread and an operation's thread of one instance both report their failures.
  std::atomic<FailReason> fail_reason_{FAIL_REASON_NONE};
};

std::ostream& operator<<(std::ostream& out, FileSystem::Result result);

class FileSystem::Change {
 public:
  enum Type : std::int32_t {
    FILE_CREATE = 0,
    FILE_DELETE = 1,
    FILE_RENAME = 2,
    FILE_MODIFY = 3,
    FOLDER_CREATE = 4,
    FOLDER_DELETE = 5,
    FOLDER_CLEAR = 6,
    FOLDER_RENAME = 7,
    FOLDER_UPDATE = 8,
    FILE_OR_FOLDER_DELETE = 9,
    REMOVE = 10,
    RENAME = 11,
    REVISION_SET = 12,
    FREE_SIZE_SET = 13,
    TOTAL_SIZE_SET = 14,
    TOTAL_SIZE_INCREASE = 15,
    TOTAL_SIZE_DECREASE = 16,
    USED_SIZE_INCREASE = 17,
    USED_SIZE_DECREASE = 18,
    EXPORT = 19,
    UNSHARE = 20,
    MOUNT = 21,
    UNMOUNT = 22,
    SET_OWNER = 23,
    ADD_USER = 24,
    DELETE_USER = 25,
    GRANT_ACCESS = 26,
    ORIGIN = 27,
    PUBLIC_LINK = 28,
    DUMMY = 29,
  };
  static const char* TypeName(Type type);  // "Unknown type" beyond the table

  Change() = default;
  Change(Type type, std::string path) : type(type), path(std::move(path)) {}

  std::string ToString() const;
  bool IsFileChange() const;
  bool IsDeletionType() const;

  Type type = DUMMY;
  std::string path;      // relative to the mounted root, no leading "/"
  std::string old_path;  // the previous path of a rename or move
  std::uint64_t time = 0;
  std::uint64_t size = 0;  // for the size types, the new value
  SomeHash hash;
  // Services that name items by id carry the item's id and its drive with the change.
  std::string id;
  std::string drive_id;
  // The item may not be changed from this side (someone else's, or Google's emulated folder).
  bool readonly = false;
};

class FileSystem::Revision {
 public:
  static Revision RevisionNone() { return Revision(); }
  bool IsNone() const { return value_.empty(); }

 private:
  std::string value_;
};

// What the caller believes a remote item is right now; an operation that may destroy the item
// checks it against the server first.
struct FileSystem::OverwriteControl {
  OverwriteControl() = default;
  explicit OverwriteControl(SomeHash hash) : hash(std::move(hash)) {}
  SomeHash hash;  // empty: the item must not exist yet
};

struct FileSystem::FileProperties {
  FileProperties() = default;
  FileProperties(SomeHash hash, std::uint64_t inode, std::uint64_t size, std::uint64_t time,
                 bool flag)
      : hash(std::move(hash)), inode(inode), size(size), time(time), flag(flag) {}
  SomeHash hash;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::uint64_t time = 0;
  bool flag = false;
};

struct FileSystem::LengthLimits {
  std::optional<std::uint32_t> first;
  std::optional<std::uint32_t> second;
};
