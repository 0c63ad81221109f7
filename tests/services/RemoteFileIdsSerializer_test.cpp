#include "services/RemoteFileIdsSerializer.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "core/LoggerWrapper.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileIdsSerializerPOD.h"
#include "services/RemoteFileIdsSerializerText.h"
#include "support/IdsTreeTesting.h"

namespace {

using ids_testing::Item;

// What a tree must read back as: a folder's trash flag is not kept.
std::vector<Item> ExpectedAfterRoundTrip(const RemoteFileIds& ids) {
  std::vector<Item> items = ids_testing::Snapshot(ids);
  for (Item& item : items) {
    item.trashed = item.trashed && !item.folder;
  }
  return items;
}

std::string Write(RemoteFileIdsSerializer& serializer, RemoteFileIds& ids) {
  std::ostringstream out;
  EXPECT_TRUE(serializer.Serialize(&ids, nullptr, out));
  return out.str();
}

struct Format {
  const char* name;
  std::function<std::unique_ptr<RemoteFileIdsSerializer>()> make;
};

class RoundTripTest : public ::testing::TestWithParam<Format> {};

TEST_P(RoundTripTest, RandomTreesComeBackExactly) {
  const ids_testing::RandomTreeOptions shapes[] = {
      {},
      {5, 20, 400, 0, 3},   // deep
      {2, 10, 0, 3000, 0},  // wide
      {0, 0, 0, 0, 4},      // only the root and not linked items
  };
  std::uint64_t seed = 100;
  for (const auto& shape : shapes) {
    SCOPED_TRACE(seed);
    RemoteFileIds ids;
    ids_testing::BuildRandomTree(seed++, shape, &ids);
    auto serializer = GetParam().make();
    std::stringstream stream(Write(*serializer, ids));
    RemoteFileIds restored;
    LoggerWrapper::Capture capture;
    ASSERT_TRUE(serializer->Deserialize(nullptr, &restored, stream));
    EXPECT_EQ(ids_testing::Snapshot(restored), ExpectedAfterRoundTrip(ids));
    EXPECT_EQ(ids_testing::CheckInvariants(restored, 0), "");
    EXPECT_TRUE(capture.LinesAtLevel(LogType::kError).empty());
    EXPECT_TRUE(capture.LinesAtLevel(LogType::kFatal).empty());
  }
}

TEST_P(RoundTripTest, EmptyTreeWritesNothingAndReadsBackUninitialised) {
  RemoteFileIds ids;
  auto serializer = GetParam().make();
  const std::string bytes = Write(*serializer, ids);
  std::stringstream stream(bytes);
  RemoteFileIds restored;
  EXPECT_TRUE(serializer->Deserialize(nullptr, &restored, stream));
  EXPECT_FALSE(restored.IsInit());
}

TEST_P(RoundTripTest, RaisedStopFlagFailsBothDirections) {
  RemoteFileIds ids;
  ids_testing::BuildRandomTree(7, {}, &ids);
  auto serializer = GetParam().make();
  const std::string bytes = Write(*serializer, ids);
  std::atomic<bool> stop{true};
  std::ostringstream out;
  EXPECT_FALSE(serializer->Serialize(&ids, &stop, out));
  EXPECT_LT(out.str().size(), bytes.size());
  std::stringstream in(bytes);
  RemoteFileIds restored;
  LoggerWrapper::Capture capture;
  EXPECT_FALSE(serializer->Deserialize(&stop, &restored, in));
  EXPECT_EQ(capture.LinesAtLevel(LogType::kError).size(), 1u);
  EXPECT_TRUE(capture.Contains("Tree ids is deserializing too long, break.") ||
              capture.Contains("Time over."));
}

INSTANTIATE_TEST_SUITE_P(
    Formats, RoundTripTest,
    ::testing::Values(Format{"Text",
                             [] { return std::make_unique<RemoteFileIdsSerializerText>(); }},
                      Format{"POD", [] { return std::make_unique<RemoteFileIdsSerializerPOD>(); }}),
    [](const auto& info) { return std::string(info.param.name); });

// Two items, so that the order of records is the order of the walk.
void BuildSmallTree(RemoteFileIds* ids) {
  ids->Init("R");
  ids->AddFolderId("D", "dir", "R");
  ids->AddFileId("F", "f:1", "D");
  ids->AddTrashed("F");
  ids->AddMappingInfo("F", "f:1", "f_1");
}

TEST(TextFormatTest, WritesSixLinesPerRecordParentsFirst) {
  RemoteFileIds ids;
  BuildSmallTree(&ids);
  std::ostringstream out;
  ASSERT_TRUE(ids.Serialize(nullptr, out));
  EXPECT_EQ(out.str(),
            "root\nR\n1\n0\n\n\n"
            "dir\nD\n1\n0\n\n\n"
            "dir/f:1\nF\n0\n1\nf:1\nf_1\n");
}

TEST(TextFormatTest, StopsRightBehindTheMarkerOfTheNextSection) {
  RemoteFileIds ids;
  BuildSmallTree(&ids);
  std::ostringstream out;
  ASSERT_TRUE(ids.Serialize(nullptr, out));
  std::stringstream in(out.str() + "public_link_ids\nlink-1\nlink-2\n");
  RemoteFileIds restored;
  ASSERT_TRUE(RemoteFileIds::Deserialize(nullptr, in, &restored));
  EXPECT_EQ(restored.GetFileIdByPath("dir/f:1"), "F");
  std::string rest((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(rest, "link-1\nlink-2\n");
}

// Every cut of the stream reads back with success: whole records stand, a cut record is
// dropped unless only its last line was shortened.
TEST(TextFormatTest, EveryCutReadsBackTheRecordsBeforeIt) {
  RemoteFileIds ids;
  ids_testing::BuildRandomTree(3, {6, 15, 5, 0, 0}, &ids);
  std::ostringstream out;
  ASSERT_TRUE(ids.Serialize(nullptr, out));
  const std::string bytes = out.str();
  const std::vector<Item> full = ExpectedAfterRoundTrip(ids);
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    SCOPED_TRACE(cut);
    const std::string head = bytes.substr(0, cut);
    std::stringstream in(head);
    RemoteFileIds restored;
    ASSERT_TRUE(RemoteFileIds::Deserialize(nullptr, in, &restored));
    const std::size_t lines = std::count(head.begin(), head.end(), '\n');
    const std::vector<Item> read = ids_testing::Snapshot(restored);
    EXPECT_GE(read.size(), lines / 6);
    EXPECT_LE(read.size(), lines / 6 + 1);
    for (const Item& item : read) {
      auto same_id = std::find_if(full.begin(), full.end(),
                                  [&](const Item& other) { return other.id == item.id; });
      ASSERT_NE(same_id, full.end());
      EXPECT_EQ(item.path, same_id->path);
      EXPECT_EQ(item.folder, same_id->folder);
    }
  }
}

TEST(TextFormatTest, RecordFailuresAndOddRecords) {
  struct Case {
    const char* name;
    std::string stream;
    bool result;
    LogType level;
    std::string line;                // empty: no line of that level
    std::vector<std::string> files;  // paths of files found afterwards
  };
  const std::string root = "root\nR\n1\n0\n\n\n";
  const std::vector<Case> cases = {
      {"unknown parent",
       root + "a/b\nB\n0\n0\n\n\nc\nC\n0\n0\n\n\n",
       false,
       LogType::kFatal,
       "File \"a/b\" not inserted.",
       {}},
      {"unknown parent folder",
       root + "a/b\nB\n1\n0\n\n\n",
       false,
       LogType::kFatal,
       "Folder \"a/b\" not inserted.",
       {}},
      {"no root", "c\nC\n0\n0\n\n\n", false, LogType::kFatal, "File \"c\" not inserted.", {}},
      {"empty id",
       root + "c\nC\n0\n0\n\n\nd\n\n0\n0\n\n\ne\nE\n0\n0\n\n\n",
       true,
       LogType::kError,
       "Empty path",
       {"c"}},
      {"mapping with one side", root + "c\nC\n0\n0\norig\n\n", true, LogType::kError, "", {"c"}},
      {"folder flag other than 1", root + "c\nC\nx\n0\n\n\n", true, LogType::kError, "", {"c"}},
      {"crlf is part of the line", root + "c\r\nC\n0\n0\n\n\n", true, LogType::kError, "", {"c\r"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::stringstream in(c.stream);
    RemoteFileIds restored;
    LoggerWrapper::Capture capture;
    EXPECT_EQ(RemoteFileIds::Deserialize(nullptr, in, &restored), c.result);
    if (!c.line.empty()) {
      EXPECT_TRUE(capture.Contains(c.line));
      EXPECT_FALSE(capture.LinesAtLevel(c.level).empty());
    } else {
      EXPECT_TRUE(capture.LinesAtLevel(c.level).empty());
    }
    for (const std::string& path : c.files) {
      EXPECT_FALSE(restored.GetFileIdByPath(path).empty()) << path;
    }
    EXPECT_FALSE(restored.HasMappedName("C"));
  }
}

std::string Le32(std::uint32_t value) {
  return std::string{static_cast<char>(value & 0xff), static_cast<char>(value >> 8 & 0xff),
                     static_cast<char>(value >> 16 & 0xff), static_cast<char>(value >> 24)};
}

std::string PodString(const std::string& text) {
  return Le32(text.size()) + text;
}

std::string PodRecord(bool folder, bool trashed, const std::string& path, const std::string& id,
                      const std::string& original = "", const std::string& mapped = "") {
  return std::string{static_cast<char>(folder), static_cast<char>(trashed)} + PodString(path) +
         PodString(id) + PodString(original) + PodString(mapped);
}

TEST(PodFormatTest, WritesLittleEndianHeaderAndRecords) {
  RemoteFileIds ids;
  BuildSmallTree(&ids);
  RemoteFileIdsSerializerPOD pod;
  EXPECT_EQ(Write(pod, ids), Le32(1) + Le32(1) + Le32(3) + PodRecord(true, false, "root", "R") +
                                 PodRecord(true, false, "dir", "D") +
                                 PodRecord(false, true, "dir/f:1", "F", "f:1", "f_1"));
}

TEST(PodFormatTest, RefusesNewerVersionsAndCutStreams) {
  const std::string records = Le32(1) + PodRecord(true, false, "root", "R");
  struct Case {
    const char* name;
    std::string bytes;
    std::string text;
  };
  std::vector<Case> cases = {
      {"format version 2", Le32(2) + Le32(1) + records, "version is newer"},
      {"record list version 2", Le32(1) + Le32(2) + records, "version is newer"},
      {"huge string length", Le32(1) + Le32(1) + Le32(1) + "\x01\x00" + Le32(0xfffffff0u) + "ro",
       "ended inside"},
  };
  const std::string whole = Le32(1) + Le32(1) + records;
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    cases.push_back({"cut", whole.substr(0, cut), "ended inside"});
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + std::to_string(c.bytes.size()));
    std::stringstream in(c.bytes);
    RemoteFileIds restored;
    LoggerWrapper::Capture capture;
    EXPECT_FALSE(RemoteFileIdsSerializerPOD().Deserialize(nullptr, &restored, in));
    ASSERT_EQ(capture.LinesAtLevel(LogType::kFatal).size(), 1u);
    EXPECT_TRUE(capture.Contains("Deserialization error: "));
    EXPECT_TRUE(capture.Contains(c.text));
    EXPECT_FALSE(restored.IsInit());
  }
  EXPECT_EQ(serialized_tree_helper::GetPODSerializationErrorText(pods::Error::kNoError),
            std::nullopt);
}

TEST(PodFormatTest, SkipsRecordsThatCantBeAddedAndLeavesTheStreamAfterTheRecords) {
  const std::string bytes = Le32(1) + Le32(1) + Le32(4) + PodRecord(true, false, "root", "R") +
                            PodRecord(false, false, "missing/x", "X") +
                            PodRecord(true, true, "dir", "D") +
                            PodRecord(false, true, "dir/y", "Y", "y?", "y_");
  std::stringstream in(bytes + "tail");
  RemoteFileIds restored;
  LoggerWrapper::Capture capture;
  ASSERT_TRUE(RemoteFileIdsSerializerPOD().Deserialize(nullptr, &restored, in));
  EXPECT_TRUE(capture.Contains("File \"missing/x\" not inserted."));
  EXPECT_EQ(restored.GetFileIdByPath("dir/y"), "Y");
  EXPECT_TRUE(restored.IsTrashed("Y"));
  EXPECT_FALSE(restored.IsTrashed("D"));
  EXPECT_EQ(restored.MappedGetOriginalName("Y"), "y?");
  EXPECT_FALSE(restored.HasFile("X"));
  std::string rest((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(rest, "tail");
}

}  // namespace
