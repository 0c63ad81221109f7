#include "core/PathUtils.h"

#include <gtest/gtest.h>

#include <set>

namespace {

TEST(PathUtilsTest, SplitsAtTheLastSlash) {
  struct Case {
    const char* path;
    const char* parent;
    const char* name;
  };
  const Case cases[] = {
      {"a/b/c.txt", "a/b", "c.txt"},
      {"c.txt", "", "c.txt"},
      {"", "", ""},
      {"a/", "a", ""},
      {"/a", "", "a"},
      {"a//b", "a/", "b"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(utils::ParentPath(c.path), c.parent) << c.path;
    EXPECT_EQ(utils::ExtractNameFromPath(c.path), c.name) << c.path;
    std::string parent = "old";
    std::string name = "old";
    EXPECT_EQ(utils::SplitPath(c.path, &parent, &name), *c.name != '\0') << c.path;
    EXPECT_EQ(parent, c.parent);
    EXPECT_EQ(name, c.name);
  }
}

TEST(PathUtilsTest, UniqueNamePostfix) {
  struct Case {
    std::set<std::string> taken;
    const char* name;
    const char* expected;
  };
  const Case cases[] = {
      {{}, "a.txt", "a.txt"},
      {{"a.txt"}, "a.txt", "a (1).txt"},
      {{"a.txt", "a (1).txt", "a (2).txt"}, "a.txt", "a (3).txt"},
      {{"noext"}, "noext", "noext (1)"},
      {{".profile"}, ".profile", ".profile (1)"},
      {{"archive.tar.gz"}, "archive.tar.gz", "archive.tar (1).gz"},
      {{"dir.d/file"}, "dir.d/file", "dir.d/file (1)"},
      {{"dir/x.y"}, "dir/x.y", "dir/x (1).y"},
  };
  for (const Case& c : cases) {
    auto exists = [&](const std::string& name) { return c.taken.count(name) > 0; };
    EXPECT_EQ(utils::ChooseUniqueNamePostfix(exists, c.name), c.expected) << c.name;
  }
}

TEST(PathUtilsTest, UniqueNamePostfixGivesUpWhenEverythingIsTaken) {
  int asked = 0;
  auto exists = [&](const std::string&) { return ++asked > 0; };
  EXPECT_EQ(utils::ChooseUniqueNamePostfix(exists, "a.txt"), "");
  EXPECT_EQ(asked, utils::kMaxUniqueNamePostfix + 1);
}

TEST(PathSegmentsTest, EmptySegmentsAreLeftOut) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"", {}},
      {"/", {}},
      {"a", {"a"}},
      {"/a//b/", {"a", "b"}},
      {"Docs/Ünï cödé/x.txt", {"Docs", "Ünï cödé", "x.txt"}},
      {"..//.", {"..", "."}},
  };
  for (const auto& [path, want] : cases) {
    EXPECT_EQ(utils::PathSegments(path), want) << path;
  }
}

}  // namespace
