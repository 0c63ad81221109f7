// The Google adapter's saved state: written after a tree, read into another account's adapter,
// and refused whole (the previous state kept) whenever any part of it is wrong.
#include <QByteArray>
#include <QCryptographicHash>

#include <algorithm>
#include <memory>
#include <queue>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "services/Fnv1aHash.h"
#include "services/GoogleErrorDescription.h"
#include "services/RemoteFileIds.h"
#include "services/RemoteFileSystemFactoryGoogle.h"
#include "services/RemoteFileSystemGoogleSharedData.h"
#include "support/GoogleDriveFixture.h"
#include "support/Processes.h"

namespace {

using test::GoogleDrive;

RemoteFileSystemGoogleSharedData* Record(RemoteFileSystemFactory& factory) {
  return dynamic_cast<RemoteFileSystemGoogleSharedData*>(factory.GetSharedData().get());
}

std::string Joined(const std::vector<std::string>& lines, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count && i < lines.size(); ++i) {
    text += lines[i] + "\n";
  }
  return text;
}

std::string RawMd5(const std::string& text) {
  return QCryptographicHash::hash(QByteArray::fromStdString(text), QCryptographicHash::Md5)
      .toStdString();
}

// Everything a restore replaces, as text, for before-and-after comparison.
struct StateView {
  std::set<std::string> ids;  // the id tree's records, whose order follows insertion
  std::set<std::string> docs;
  std::string keys_header;
  std::size_t keys = 0;
  std::set<std::string> public_links;

  bool operator==(const StateView& other) const {
    return ids == other.ids && docs == other.docs && keys_header == other.keys_header &&
           keys == other.keys && public_links == other.public_links;
  }
};

void PrintTo(const StateView& view, std::ostream* out) {
  for (const std::string& record : view.ids) {
    *out << record;
  }
  *out << "docs:";
  for (const std::string& doc : view.docs) {
    *out << " " << doc;
  }
  *out << "\nkeys: " << view.keys << " " << view.keys_header << "\nlinks:";
  for (const std::string& link : view.public_links) {
    *out << " " << link;
  }
}

StateView View(RemoteFileSystemFactory& factory, const tsl::htrie_set<char>& public_links,
               const std::string& keyed_id) {
  StateView view;
  RemoteFileSystemGoogleSharedData* shared = Record(factory);
  std::ostringstream ids;
  shared->ids->Serialize(nullptr, ids);
  std::vector<std::string> id_lines = test::Lines(ids.str());
  for (std::size_t i = 0; i + 5 < id_lines.size(); i += 6) {
    view.ids.insert(Joined({id_lines.begin() + i, id_lines.begin() + i + 6}, 6));
  }
  std::ostringstream docs;
  shared->docs->Serialize(nullptr, docs);
  std::vector<std::string> doc_lines = test::Lines(docs.str());
  for (std::size_t i = 0; i + 1 < doc_lines.size(); i += 2) {
    view.docs.insert(doc_lines[i] + " " + doc_lines[i + 1]);
  }
  view.keys_header = shared->resource_keys->BuildHeader({keyed_id});
  view.keys = shared->resource_keys->Count();
  for (auto it = public_links.begin(); it != public_links.end(); ++it) {
    view.public_links.insert(it.key());
  }
  return view;
}

class GoogleStateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    emulators::CloudAccount& account = drive_.account();
    emulators::GoogleDialect::SeedDemoDrive(account);
    keyed_ = IdOf("Docs/keyed.pdf");
    account.SetPublicLink(IdOf("Docs/readme.txt"), "https://drive.example/readme", nullptr);
    // A file of the tree that the feed found in the trash stays in the id tree with its mark.
    trashed_ = IdOf("Docs/empty.bin");
    FolderNode root;
    std::uint64_t free = 0;
    std::uint64_t total = 0;
    ASSERT_EQ(drive_.fs->GetFullTree(&root, &free, &total, &public_links_), FileSystem::SUCCEEDED);
    Record(*drive_.factory)->ids->AddTrashed(trashed_);
    std::ostringstream out;
    ASSERT_TRUE(drive_.fs->Serialize(nullptr, public_links_, out));
    state_ = out.str();
  }

  std::string IdOf(const std::string& path) { return drive_.account().FindByPath(path)->id; }

  // A second account's adapter on the same emulator, as after a restart.
  std::unique_ptr<RemoteFileSystemGoogle> Restarted(
      std::unique_ptr<RemoteFileSystemFactory>* factory) {
    *factory = std::make_unique<RemoteFileSystemFactoryGoogle>("");
    std::unique_ptr<RemoteFileSystemGoogle> fs(
        static_cast<RemoteFileSystemGoogle*>((*factory)->Create()));
    EXPECT_TRUE(fs->Open(std::make_shared<CurlURLProcessorFactory>(
        std::make_shared<core::cookie::CookieOAuth>("t"))));
    return fs;
  }

  bool Restore(const std::string& text, const std::atomic<bool>* stop = nullptr) {
    std::stringstream in(text);
    return drive_.fs->Deserialize(stop, &public_links_, in);
  }

  GoogleDrive drive_;
  std::string keyed_;
  std::string trashed_;
  tsl::htrie_set<char> public_links_;
  std::string state_;
};

TEST_F(GoogleStateTest, RestoredAdapterHasTheSameStoresAndFollowsTheFeedWithoutListing) {
  std::unique_ptr<RemoteFileSystemFactory> factory;
  std::unique_ptr<RemoteFileSystemGoogle> fs = Restarted(&factory);
  // 1. The stores come back equal, none of them empty.
  tsl::htrie_set<char> public_links;
  std::stringstream in(state_);
  ASSERT_TRUE(fs->Deserialize(nullptr, &public_links, in));
  StateView restored = View(*factory, public_links, keyed_);
  StateView saved = View(*drive_.factory, public_links_, keyed_);
  EXPECT_EQ(restored, saved);
  auto ids = Record(*factory)->ids;
  EXPECT_TRUE(ids->IsTrashed(trashed_));
  EXPECT_EQ(ids->MappedGetOriginalName(ids->GetFileIdByPath("Docs/twin (1).txt")), "twin.txt");
  EXPECT_EQ(restored.docs.size(), 1u);
  EXPECT_EQ(restored.keys_header, "X-Goog-Drive-Resource-Keys: " + keyed_ + "/0-keyOfKeyed");
  EXPECT_EQ(restored.public_links, (std::set<std::string>{"docs/readme.txt"}));
  // The keys serve every adapter of the restored account.
  std::unique_ptr<RemoteFileSystemGoogle> sibling(
      static_cast<RemoteFileSystemGoogle*>(factory->Create()));
  EXPECT_EQ(sibling->ResourceKeys().BuildHeader({keyed_}), restored.keys_header);
  // 2. A foreign change arrives from the saved token, without any listing.
  const std::size_t before = drive_.emulator->server().Requests().size();
  drive_.account().CreateFile(drive_.account().RootId(), "after-restart.txt", "new", 1700000000000,
                              nullptr);
  ASSERT_EQ(fs->PrepareAfterTreeDeserialized(), FileSystem::SUCCEEDED);
  std::queue<FileSystem::Change> changes;
  ASSERT_EQ(fs->GetChanges(&changes), FileSystem::SUCCEEDED);
  bool created = false;
  for (; !changes.empty(); changes.pop()) {
    created = created || (changes.front().type == FileSystem::Change::FILE_CREATE &&
                          changes.front().path == "after-restart.txt");
  }
  EXPECT_TRUE(created);
  const auto requests = drive_.emulator->server().Requests();
  for (std::size_t i = before; i < requests.size(); ++i) {
    EXPECT_NE(requests[i].path, "/drive/v3/files") << "a listing after the restore";
  }
  // 3. What it saves now is what it read, with the new file's record.
  std::ostringstream again;
  ASSERT_TRUE(fs->Serialize(nullptr, public_links, again));
  std::vector<std::string> resaved = test::Lines(again.str());
  EXPECT_EQ(resaved.size(), test::Lines(state_).size() + 6);
  EXPECT_NE(std::find(resaved.begin(), resaved.end(), "after-restart.txt"), resaved.end());
}

TEST_F(GoogleStateTest, EveryCutOfTheFileIsRefusedAndTheStateKept) {
  const StateView before = View(*drive_.factory, public_links_, keyed_);
  const std::vector<std::string> lines = test::Lines(state_);
  for (std::size_t count = 0; count < lines.size(); ++count) {
    SCOPED_TRACE("first " + std::to_string(count) + " lines");
    EXPECT_FALSE(Restore(Joined(lines, count)));
    EXPECT_EQ(View(*drive_.factory, public_links_, keyed_), before);
  }
  EXPECT_TRUE(Restore(state_));
}

TEST_F(GoogleStateTest, EachWrongPartIsRefusedWithItsMetricAndTheStateKept) {
  const std::vector<std::string> lines = test::Lines(state_);
  const std::size_t ids_end =
      std::find(lines.begin(), lines.end(), "public_link_ids") - lines.begin();
  auto with_line = [&](std::size_t index, const std::string& value) {
    std::vector<std::string> changed = lines;
    changed[index] = value;
    return Joined(changed, changed.size());
  };
  // The documents' marker is the last but one.
  const std::size_t docs_end =
      std::find(lines.rbegin() + 1, lines.rend(), "///section_end_marker////").base() -
      lines.begin() - 1;
  std::string other_token = lines[0] + "x";
  struct Case {
    const char* name;
    std::string text;
    const char* metric;
    const char* log;
  };
  const Case cases[] = {
      {"empty token", with_line(0, ""), "tree_file_empty_token", "Empty token from file."},
      {"token changed", with_line(0, other_token), "tree_file_wrong_token",
       "Wrong token value, deserialize failed."},
      {"FNV off by one", with_line(1, std::to_string(Fnv1aHash()(lines[0]) + 1)),
       "tree_file_wrong_token", "Wrong token value, deserialize failed."},
      {"FNV not a number", with_line(1, "12ab"), "tree_file_wrong_token",
       "Wrong token value, deserialize failed."},
      {"FNV negative", with_line(1, "-1"), "tree_file_wrong_token",
       "Wrong token value, deserialize failed."},
      {"MD5 changed", with_line(3, "not the digest"), "tree_file_wrong_token",
       "Wrong token value, got \"not the digest"},
      {"MD5 never closed",
       Joined(lines, 4) + "a\nb\nc\nd\ne\nf\ng\nh\ni\nj\nk\nl\nm\nn\no\np\nq\nr\ns\n",
       "tree_file_wrong_token", "Wrong token value, deserialize failed."},
      {"id tree without its root",
       Joined(lines, 5) + Joined({lines.begin() + ids_end, lines.end()}, lines.size()),
       "tree_file_ids_not_init", "Failed to deserialize ids tree."},
      {"id record of an unknown parent",
       Joined(lines, ids_end) + "nowhere/x\nX1\n0\n0\n\n\n" +
           Joined({lines.begin() + ids_end, lines.end()}, lines.size()),
       "tree_file_ids_restore_failed", "Failed to deserialize id tree."},
      {"documents never closed", Joined(lines, docs_end), "google_doc_restore_failed",
       "Failed to deserialize google docs."},
      {"keys never closed", Joined(lines, lines.size() - 1), "resource_keys_restore_failed",
       "Failed to deserialize resource keys."},
  };
  const StateView before = View(*drive_.factory, public_links_, keyed_);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LoggerWrapper::Capture log;
    RadarsLogger::Capture metrics;
    EXPECT_FALSE(Restore(c.text));
    EXPECT_EQ(metrics.Count(c.metric), 1u);
    EXPECT_EQ(metrics.Metrics().size(), 1u);
    EXPECT_TRUE(log.Contains(c.log));
    EXPECT_EQ(View(*drive_.factory, public_links_, keyed_), before);
  }
}

TEST_F(GoogleStateTest, StopRaisedRefusesBothWays) {
  std::atomic<bool> stop{true};
  LoggerWrapper::Capture log;
  EXPECT_FALSE(Restore(state_, &stop));
  EXPECT_TRUE(log.Contains("Too long time, deserialization interrupted."));
  RadarsLogger::Capture metrics;
  std::ostringstream out;
  EXPECT_FALSE(drive_.fs->Serialize(&stop, public_links_, out));
  EXPECT_EQ(metrics.Count("tree_file_ids_save_failed"), 1u);
  EXPECT_TRUE(log.Contains("Failed to serialize id tree."));
}

TEST_F(GoogleStateTest, OlderFileWithoutDigestLinesIsRead) {
  std::vector<std::string> lines = test::Lines(state_);
  lines.erase(lines.begin() + 2, lines.begin() + 5);
  EXPECT_TRUE(Restore(Joined(lines, lines.size())));
}

// Tokens whose digest holds the bytes a line-based file trips over: each saves and reads back.
TEST_F(GoogleStateTest, TokenWhoseDigestHoldsNewlineOrZeroRoundTrips) {
  for (char byte : {'\n', '\0'}) {
    SCOPED_TRACE(byte == '\n' ? "newline" : "zero");
    std::string token;
    for (int i = 0; token.empty(); ++i) {
      std::string candidate = "token" + std::to_string(i);
      std::string digest = RawMd5(candidate);
      // A zero byte inside, not first: the cut digest is neither whole nor empty.
      if (digest.find(byte) != std::string::npos && digest[0] != '\0') {
        token = candidate;
      }
    }
    std::string digest = RawMd5(token);
    digest = digest.substr(0, digest.find('\0'));
    std::vector<std::string> lines = test::Lines(state_);
    std::string text = token + "\n" + std::to_string(Fnv1aHash()(token)) + "\nhash_sum\n" + digest +
                       "\nhash_sum\n" + Joined({lines.begin() + 5, lines.end()}, lines.size());
    ASSERT_TRUE(Restore(text));
    std::ostringstream out;
    ASSERT_TRUE(drive_.fs->Serialize(nullptr, public_links_, out));
    EXPECT_EQ(out.str().substr(0, token.size() + 1), token + "\n");
    std::vector<std::string> saved = test::Lines(out.str());
    std::vector<std::string> read = test::Lines(text);
    EXPECT_EQ(std::vector<std::string>(saved.begin(), saved.begin() + 5 + (byte == '\n')),
              std::vector<std::string>(read.begin(), read.begin() + 5 + (byte == '\n')));
  }
}

TEST(GoogleErrorDescriptionTest, ReasonsGiveTheUsersTextWithASearchLink) {
  const std::string head = "Произошла ошибка при обработке ";
  const std::string link =
      "<a href=\"https://drive.google.com/drive/search?q=b.txt\">b.txt</a>\": ";
  struct Case {
    TreeError error;
    std::string text;
  };
  const Case cases[] = {
      {{TreeError::kNone, "a/b.txt", true}, ""},
      {{TreeError::kUnknown, "a/b.txt", true}, head + "файла \"a/" + link + "неизвестная ошибка."},
      {{TreeError::kDuplicate, "a/b.txt", false},
       head + "папки \"a/" + link + "повторяющийся элемент."},
      {{TreeError::kSeveralFolders, "a/b.txt", true},
       head + "файла \"a/" + link + "файл находится в нескольких папках."},
      {{TreeError::kNoLocation, "a/b.txt", true},
       head + "файла \"a/" + link + "не удалось определить местоположения файла."},
      {{TreeError::kSharedDuplicate, "b.txt", true},
       head + "файла \"" + link +
           "повторяющийся элемент среди элементов с предоставленным доступом."},
      {{TreeError::kNoLocation, "x/My Report#1.doc", true},
       head + "файла \"x/<a href=\"https://drive.google.com/drive/search?q=My%20Report%231.doc\">"
              "My Report#1.doc</a>\": не удалось определить местоположения файла."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error.path + " " + std::to_string(c.error.reason));
    EXPECT_EQ(GoogleErrorDescription::Text(c.error).toStdString(), c.text);
  }
  LoggerWrapper::Capture log;
  EXPECT_TRUE(GoogleErrorDescription::Text({6, "a/b.txt", true}).isEmpty());
  ASSERT_EQ(log.LinesAtLevel(LogType::kFatal).size(), 1u);
  EXPECT_TRUE(log.Contains("Unhandled error reason."));
}

}  // namespace
