#include "core/FileSystem.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

std::string Printed(FileSystem::Result result) {
  std::ostringstream out;
  out << result;
  return out.str();
}

TEST(FileSystemTest, ResultsPrintByName) {
  const char* names[] = {"SUCCEEDED",
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
  for (int value = 0; value < 20; ++value) {
    EXPECT_EQ(Printed(static_cast<FileSystem::Result>(value)), names[value]);
  }
  EXPECT_EQ(Printed(static_cast<FileSystem::Result>(20)), "Unknown type");
  EXPECT_EQ(Printed(static_cast<FileSystem::Result>(-1)), "Unknown type");
}

TEST(FileSystemTest, ChangeTypesNamesAndKinds) {
  using Change = FileSystem::Change;
  struct Case {
    Change::Type type;
    const char* name;
    bool file;
    bool deletion;
  };
  const Case cases[] = {
      {Change::FILE_CREATE, "FILE_CREATE", true, false},
      {Change::FILE_DELETE, "FILE_DELETE", true, true},
      {Change::FILE_RENAME, "FILE_RENAME", true, false},
      {Change::FILE_MODIFY, "FILE_MODIFY", true, false},
      {Change::FOLDER_CREATE, "FOLDER_CREATE", false, false},
      {Change::FOLDER_DELETE, "FOLDER_DELETE", false, true},
      {Change::FOLDER_RENAME, "FOLDER_RENAME", false, false},
      {Change::FILE_OR_FOLDER_DELETE, "FILE_OR_FOLDER_DELETE", false, true},
      {Change::REMOVE, "REMOVE", false, true},
      {Change::FREE_SIZE_SET, "FREE_SIZE_SET", false, false},
      {Change::TOTAL_SIZE_SET, "TOTAL_SIZE_SET", false, false},
      {Change::PUBLIC_LINK, "PUBLIC_LINK", false, false},
      {Change::DUMMY, "DUMMY", false, false},
      {static_cast<Change::Type>(30), "Unknown type", false, false},
  };
  for (const Case& c : cases) {
    Change change(c.type, "a/b");
    EXPECT_STREQ(Change::TypeName(c.type), c.name);
    EXPECT_EQ(change.IsFileChange(), c.file) << c.name;
    EXPECT_EQ(change.IsDeletionType(), c.deletion) << c.name;
    EXPECT_EQ(change.ToString().rfind(c.name, 0), 0u) << change.ToString();
  }
}

TEST(FileSystemTest, CanonicalPaths) {
  const std::pair<const char*, bool> cases[] = {
      {"", true},      {"a", true},    {"a/b c/d.txt", true}, {"/a", false},   {"a/", false},
      {"a//b", false}, {"./a", false}, {"a/../b", false},     {"..a/b", true},
  };
  for (const auto& [path, canonical] : cases) {
    EXPECT_EQ(FileSystem::IsCanonicalPath(path), canonical) << path;
    EXPECT_EQ(FileSystem::IsRelativeCanonicalPath(path), canonical && *path != '\0') << path;
  }
}

}  // namespace
