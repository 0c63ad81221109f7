#include "core/RemoteNameMapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "core/StringUtils.h"
#include "support/MockRemoteFileSystem.h"

namespace {

class WindowsNames : public MockNoChangesFileSystem {
 public:
  const UnsupportedSymbolsMap& GetUnsupportedSymbolsMap() const override {
    return InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin;
  }
};
using WindowsNamesFileSystem = testing::NiceMock<WindowsNames>;

const InvalidSymbolsMapping::Map& StdWin() {
  return InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin;
}

TEST(RemoteNameMapperTest, StdWinTableCoversWindowsCharactersWithDistinctUtf8) {
  std::string covered;
  std::set<std::string> replacements;
  for (const auto& [c, replacement] : StdWin()) {
    covered.push_back(c);
    std::string text(replacement.data(), strnlen(replacement.data(), 4));
    EXPECT_TRUE(utils::IsValidUtf8(text));
    EXPECT_EQ(text.size(), 3u);
    replacements.insert(text);
  }
  EXPECT_EQ(replacements.size(), StdWin().size());
  for (char c : std::string("<>:\"\\|?*\x01\x1F")) {
    EXPECT_NE(covered.find(c), std::string::npos) << int(c);
  }
  EXPECT_EQ(covered.find('/'), std::string::npos);  // the separator of segments is never mapped
  EXPECT_EQ(covered.find('\0'), std::string::npos);
}

TEST(RemoteNameMapperTest, RoundTripsThroughTheService) {
  WindowsNamesFileSystem fs;
  struct Case {
    std::string local;
    std::string remote;
  };
  const Case cases[] = {
      {"a<b>c",
       "a\xEF\xBC\x9C"
       "b\xEF\xBC\x9E"
       "c"},                                     // U+FF1C, U+FF1E
      {"x:y|z", "x\xEF\xBC\x9Ay\xEF\xBD\x9Cz"},  // U+FF1A, U+FF5C
      {"\"q\"?*\\", "\xEF\xBC\x82q\xEF\xBC\x82\xEF\xBC\x9F\xEF\xBC\x8A\xEF\xBC\xBC"},
      {"tab\there", "tab\xE2\x90\x89here"},  // U+2409
      {"dir<1>/sub:2/f?.txt",
       "dir\xEF\xBC\x9C"
       "1\xEF\xBC\x9E/sub\xEF\xBC\x9A"
       "2/f\xEF\xBC\x9F.txt"},
  };
  for (const Case& c : cases) {
    std::string remote;
    bool changed = false;
    fs.MapPathToRemote(c.local, &remote, &changed);
    EXPECT_TRUE(changed) << c.local;
    EXPECT_EQ(remote, c.remote);
    std::string local;
    fs.UnmapPathToLocal(remote, &local, &changed);
    EXPECT_TRUE(changed);
    EXPECT_EQ(local, c.local);

    std::string in_place = c.local;
    EXPECT_TRUE(fs.MapNameToRemote(&in_place));
    EXPECT_TRUE(fs.UnmapNameToLocal(&in_place));
    EXPECT_EQ(in_place, c.local);
  }
}

TEST(RemoteNameMapperTest, OrdinaryNamesAndEmptyTablesChangeNothing) {
  WindowsNamesFileSystem windows;
  testing::NiceMock<MockNoChangesFileSystem> plain;
  for (const std::string name : {"plain.txt", "ä 日本/x",
                                 "a\xEF\xBC\x8F"
                                 "b",
                                 ""}) {
    std::string out = "stale";
    bool changed = true;
    windows.MapPathToRemote(name, &out, &changed);
    EXPECT_FALSE(changed) << name;
    EXPECT_EQ(out, name);
    plain.UnmapNameToLocal(name, &out, nullptr);
    EXPECT_EQ(out, name);
  }
  // A full-width solidus from the service stays: it must never turn into a separator.
  std::string remote =
      "a\xEF\xBC\x8F"
      "b";
  EXPECT_FALSE(windows.UnmapNameToLocal(&remote));
  std::string odd = "a<b";
  EXPECT_FALSE(plain.MapNameToRemote(&odd));
  EXPECT_EQ(odd, "a<b");
}

}  // namespace
