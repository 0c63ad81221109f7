// The binary tree snapshot of Yandex Disk from hand-built bytes: its numbers at their edges, its
// reader across every split of the body, and the snapshots it must refuse.
#include "services/YandexBinarySnapshot.h"

#include <gtest/gtest.h>

#include "core/InputStream.h"
#include "core/LoggerWrapper.h"
#include "core/Nodes.h"
#include "core/RadarsLogger.h"
#include "services/SnapshotBufferedReader.h"
#include "support/PassThroughNameMapper.h"
#include "support/YandexTesting.h"

namespace {

constexpr std::uint64_t kTime = 1700000000;

struct Parsed {
  bool good = false;
  std::vector<std::string> tree;
  std::uint64_t files = 0;
  std::uint64_t folders = 0;
  std::uint64_t offset = 0;
  std::uint64_t seen = 0;
  std::uint64_t expected = 0;
};

Parsed ParseBody(MemoryInputStream* body, const std::string& headers,
                 const std::string& mount = std::string()) {
  test::PassThroughNameMapper mapper;
  FolderNode root;
  RemoteFileSystem::SnapshotDownloadProgress progress;
  YandexBinarySnapshot snapshot(&root, {{mount, &mapper}, kTime}, &progress);
  Parsed parsed;
  parsed.good = snapshot.Parse(body, headers);
  parsed.tree = test::TreeLines(root, true);
  parsed.files = snapshot.Files();
  parsed.folders = snapshot.Folders();
  parsed.offset = snapshot.Offset();
  parsed.seen = progress.seen_bytes;
  parsed.expected = progress.expected_bytes;
  return parsed;
}

Parsed ParseBytes(const std::string& bytes, const std::string& headers = "Item-Count: 0\r\n",
                  const std::string& mount = std::string()) {
  MemoryInputStream body(bytes);
  return ParseBody(&body, headers, mount);
}

std::string Line(const std::string& path, std::uint64_t size) {
  return "f " + path + " " + std::to_string(size) + " " + test::SnapshotFileHashHex("/" + path) +
         " " + std::to_string(kTime);
}

// Names of every kind a disk holds: Cyrillic, blanks, emoji, an empty file, a file whose folder
// record never comes.
std::string SampleSnapshot() {
  return test::SnapshotFolder("/Документы") + test::SnapshotFile("/Документы/отчёт 2023.pdf", 300) +
         test::SnapshotFile("/Документы/пустой", 0) + test::SnapshotFolder("/Photos 😀") +
         test::SnapshotFolder("/Photos 😀/a b") +
         test::SnapshotFile("/Photos 😀/a b/c.jpg", 1 << 20) +
         test::SnapshotFile("/readme.txt", UINT64_C(1) << 40) +
         test::SnapshotFile("/deep/er/file", 7);
}

const std::vector<std::string> kSampleTree = {
    Line("readme.txt", UINT64_C(1) << 40),
    "d Photos 😀",
    "d Photos 😀/a b",
    Line("Photos 😀/a b/c.jpg", 1 << 20),
    "d deep",
    "d deep/er",
    Line("deep/er/file", 7),
    "d Документы",
    Line("Документы/отчёт 2023.pdf", 300),
    Line("Документы/пустой", 0),
};

TEST(SnapshotBufferedReaderTest, Uleb64AtItsEdges) {
  struct Case {
    const char* name;
    std::string bytes;
    bool ok;
    std::uint64_t value;
    std::uint64_t offset;
    const char* log;
  };
  const std::string nines(9, '\xff');
  const Case cases[] = {
      {"zero", std::string(1, '\0'), true, 0, 1, nullptr},
      {"one byte", "\x7f", true, 127, 1, nullptr},
      {"two bytes", "\x80\x01", true, 128, 2, nullptr},
      {"300", "\xac\x02", true, 300, 2, nullptr},
      {"top bit alone", std::string(9, '\x80') + "\x01", true, UINT64_C(1) << 63, 10, nullptr},
      {"full ten bytes", nines + "\x01", true, UINT64_MAX, 10, nullptr},
      {"last group's top bits are not checked", nines + "\x7f", true, UINT64_MAX, 10, nullptr},
      {"eleventh byte", nines + "\xff\x01", false, 0, 10, "Failed to parse ULEB64, too long at 10"},
      {"cut short", "\x80\x80", false, 0, 2, nullptr},
  };
  for (const Case& c : cases) {
    LoggerWrapper::Capture log;
    MemoryInputStream input(c.bytes);
    SnapshotBufferedReader reader(&input);
    std::uint64_t value = 0;
    EXPECT_EQ(reader.ReadULEB64(&value), c.ok) << c.name;
    EXPECT_EQ(reader.Offset(), c.offset) << c.name;
    if (c.ok) {
      EXPECT_EQ(value, c.value) << c.name;
      EXPECT_EQ(test::Uleb64(c.value).size() <= c.bytes.size(), true) << c.name;
    }
    EXPECT_EQ(c.log != nullptr, c.log && log.Contains(c.log)) << c.name;
    EXPECT_EQ(reader.EndOfStream(), !c.ok && c.log == nullptr) << c.name;
  }
  EXPECT_EQ(test::Uleb64(300), "\xac\x02");
}

TEST(SnapshotBufferedReaderTest, ReadsAcrossItsBufferWhateverTheStreamHandsOver) {
  const std::size_t total = 3 * SnapshotBufferedReader::kBufferSize + 7;
  std::string data(total, '\0');
  for (std::size_t i = 0; i < total; ++i) {
    data[i] = static_cast<char>(i * 31 + i / 251);
  }
  for (std::uint32_t block : {1u, 7u, 4096u, SnapshotBufferedReader::kBufferSize,
                              SnapshotBufferedReader::kBufferSize + 1, UINT32_MAX}) {
    MemoryInputStream input(data, block);
    SnapshotBufferedReader reader(&input);
    std::string out;
    for (std::uint32_t piece = 1; out.size() < total; piece = piece * 3 % 1009 + 48) {
      std::string chunk(std::min<std::size_t>(piece, total - out.size()), '\0');
      ASSERT_TRUE(reader.ReadBytes(reinterpret_cast<std::uint8_t*>(chunk.data()),
                                   static_cast<std::uint32_t>(chunk.size())))
          << block << " at " << out.size();
      out += chunk;
    }
    EXPECT_EQ(out, data) << block;
    EXPECT_EQ(reader.Offset(), total);
    std::uint8_t byte = 0;
    EXPECT_FALSE(reader.ReadByte(&byte));
    EXPECT_TRUE(reader.EndOfStream());
  }
}

TEST(SnapshotBufferedReaderTest, AFailedStreamIsNoEnd) {
  MemoryInputStream input("\x01\x02\x03", UINT32_MAX, 2);
  SnapshotBufferedReader reader(&input);
  std::uint8_t bytes[3] = {};
  EXPECT_FALSE(reader.ReadBytes(bytes, 3));
  EXPECT_TRUE(reader.Failed());
  EXPECT_FALSE(reader.EndOfStream());
}

TEST(YandexBinarySnapshotTest, SampleLoadsWholeWithTheRequestTime) {
  RadarsLogger::Capture metrics;
  const Parsed parsed = ParseBytes(SampleSnapshot(), "Item-Count: 10\r\n");
  EXPECT_TRUE(parsed.good);
  EXPECT_EQ(parsed.tree, kSampleTree);
  EXPECT_EQ(parsed.files, 5u);
  EXPECT_EQ(parsed.folders, 3u);
  EXPECT_EQ(parsed.offset, SampleSnapshot().size());
  EXPECT_EQ(metrics.Count("yandex_snapshot_no_total_count"), 0u);
  // Progress counts entries: 8 of the 10 announced.
  EXPECT_EQ(parsed.seen, 8u);
  EXPECT_EQ(parsed.expected, 10u);
}

TEST(YandexBinarySnapshotTest, EverySplitOfTheBodyGivesTheSameTree) {
  const std::string bytes = SampleSnapshot();
  for (std::uint32_t first = 1; first < bytes.size(); ++first) {
    MemoryInputStream body(bytes);
    body.SetBlockSizes({first, 3});
    const Parsed parsed = ParseBody(&body, "Item-Count: 8\r\n");
    ASSERT_TRUE(parsed.good) << "split at " << first;
    ASSERT_EQ(parsed.tree, kSampleTree) << "split at " << first;
  }
  MemoryInputStream byteByByte(bytes, 1);
  EXPECT_EQ(ParseBody(&byteByByte, "Item-Count: 8\r\n").tree, kSampleTree);
}

TEST(YandexBinarySnapshotTest, RecordsAcrossTheReadersBufferEnd) {
  // Long names push records over the 24 576-byte buffer at every kind of field.
  std::string bytes;
  std::vector<std::string> expected;
  for (int i = 0; i < 400; ++i) {
    const std::string name = "f" + std::to_string(i) + std::string(37 + i % 89, 'x');
    bytes += test::SnapshotFile("/" + name, static_cast<std::uint64_t>(i) << (i % 50));
    expected.push_back(Line(name, static_cast<std::uint64_t>(i) << (i % 50)));
  }
  std::sort(expected.begin(), expected.end());
  ASSERT_GT(bytes.size(), 2 * SnapshotBufferedReader::kBufferSize);
  const Parsed parsed = ParseBytes(bytes, "Item-Count: 400\r\n");
  EXPECT_TRUE(parsed.good);
  std::vector<std::string> tree = parsed.tree;
  std::sort(tree.begin(), tree.end());
  EXPECT_EQ(tree, expected);
}

TEST(YandexBinarySnapshotTest, MountedFolderIsStrippedAndCountedOnce) {
  const std::string bytes = test::SnapshotFolder("/Docs") + test::SnapshotFolder("/Docs/a") +
                            test::SnapshotFile("/Docs/a/b.txt", 3) +
                            test::SnapshotFile("/Docs/c", 1);
  const Parsed parsed = ParseBytes(bytes, "Item-Count: 4\r\n", "Docs");
  EXPECT_TRUE(parsed.good);
  EXPECT_EQ(parsed.folders, 2u);
  EXPECT_EQ(parsed.files, 2u);
  const std::vector<std::string> expected = {
      "f c 1 " + test::SnapshotFileHashHex("/Docs/c") + " " + std::to_string(kTime), "d a",
      "f a/b.txt 3 " + test::SnapshotFileHashHex("/Docs/a/b.txt") + " " + std::to_string(kTime)};
  EXPECT_EQ(parsed.tree, expected);
}

TEST(YandexBinarySnapshotTest, BadSnapshots) {
  struct Case {
    const char* name;
    std::string bytes;
    std::string headers;
    std::string mount;
    bool good;
    std::uint64_t loaded;  // files and folders counted
    std::string log;       // a fragment of a log line; empty: no warning at all
  };
  const std::string file = test::SnapshotFile("/a", 5);
  const std::string folder = test::SnapshotFolder("/d");
  const Case cases[] = {
      {"truncated in a file's hashes", file.substr(0, 20), "", "", false, 0,
       "Snapshot is truncated at 20"},
      {"truncated in a path", folder + file.substr(0, file.size() - 1), "", "", false, 1,
       "Snapshot is truncated at " + std::to_string(folder.size() + file.size() - 1)},
      {"unknown type", folder + "\x03" + file, "", "", false, 1, "Unknown entry type: 3 at 4"},
      {"type zero", std::string(1, '\0'), "", "", false, 0, "Unknown entry type: 0 at 0"},
      {"eleven-byte path length", "\x02" + std::string(10, '\xff') + "\x01/d", "", "", false, 0,
       "Failed to deserialize folder record, offset 1"},
      {"eleven-byte size", "\x01" + std::string(48, 'h') + std::string(10, '\x81') + "\x01", "", "",
       false, 0, "Failed to deserialize file record, offset 1"},
      {"absurd path length", "\x02" + test::Uleb64(UINT64_C(1) << 40) + "/d", "", "", false, 0,
       "Failed to deserialize folder record, offset 1"},
      {"folder before its parent", test::SnapshotFolder("/x/y") + test::SnapshotFolder("/x"), "",
       "", false, 0, "Failed to find parent for: /x/y"},
      {"file before its parent makes it",
       test::SnapshotFile("/x/y", 1) + test::SnapshotFolder("/x"), "Item-Count: 2\r\n", "", true, 2,
       ""},
      {"path outside the mount",
       test::SnapshotFile("/Docs/in", 1) + test::SnapshotFile("/Other/x", 1), "Item-Count: 2\r\n",
       "Docs", false, 1, "Encountered path no rooted at remote \"/Other/x\""},
      {"a longer name is no mount", test::SnapshotFolder("/Docs2"), "Item-Count: 1\r\n", "Docs",
       false, 0, "Encountered path no rooted at remote \"/Docs2\""},
      {"a file and a folder of one name", file + test::SnapshotFolder("/a"), "", "", false, 1,
       "Failed to create folder at: /a"},
      {"an empty file name", test::SnapshotFile("/d/", 1), "", "", false, 0,
       "Failed to find/create parent for: /d/"},
      {"trailing bytes past the count are not read", folder + file + "\x07garbage",
       "Item-Count: 2\r\n", "", true, 2, ""},
      {"the count decides, a body ending early is good here", folder, "Item-Count: 2\r\n", "", true,
       1, ""},
      {"no count: the whole body", folder + file, "Content-Type: x\r\n", "", true, 2,
       "No item count header in: "},
      {"count of -1 is none", folder + file, "Item-Count: -1\r\n", "", true, 2,
       "No item count header in: "},
  };
  for (const Case& c : cases) {
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    const Parsed parsed = ParseBytes(c.bytes, c.headers, c.mount);
    EXPECT_EQ(parsed.good, c.good) << c.name;
    EXPECT_EQ(parsed.files + parsed.folders, c.loaded) << c.name;
    if (c.log.empty()) {
      EXPECT_TRUE(log.LinesAtLevel(LogType::kWarning).empty()) << c.name;
      EXPECT_TRUE(log.LinesAtLevel(LogType::kError).empty()) << c.name;
    } else {
      EXPECT_TRUE(log.Contains(c.log)) << c.name << ": " << ::testing::PrintToString(log.Lines());
    }
  }
}

TEST(YandexBinarySnapshotTest, ANumberlessCountIsReportedForEveryEntry) {
  RadarsLogger::Capture metrics;
  const Parsed parsed = ParseBytes(SampleSnapshot(), "");
  EXPECT_TRUE(parsed.good);
  EXPECT_EQ(parsed.tree, kSampleTree);
  EXPECT_EQ(metrics.Count("yandex_snapshot_no_total_count"), 8u);
  EXPECT_EQ(parsed.expected, 0u);
}

}  // namespace
