// The corvane tool as a user runs it: a separate process against a real WebDAV server (apache2
// with mod_dav_fs), judged by its output, its exit status and the files in the server's folder.
#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emulators/HttpServer.h"
#include "support/DavServer.h"
#include "support/HashReferences.h"
#include "support/Processes.h"
#include "support/WebDavTesting.h"
#include "tools/ToolOutput.h"

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

// Exit statuses: 10 plus the Result value.
constexpr int kConflict = 14;
constexpr int kFatal = 13;
constexpr int kFailed = 12;
constexpr int kItemMissed = 28;
constexpr int kNotSupported = 29;
constexpr int kStopped = 11;

std::string FirstWord(const std::string& text) {
  return text.substr(0, text.find_first_of(" \n"));
}

using test::Environment;
using test::Lines;
using test::Outcome;
using test::PrintedPaths;
using test::RandomBytes;
using test::ReadAll;
using test::RunProcess;
using test::StartProcess;
using test::TempDir;
using test::WaitProcess;
using test::WriteAll;

constexpr char kUser[] = "alice";
constexpr char kPassword[] = "s3cret wörd";

Outcome RunTool(std::vector<std::string> args, const fs::path& dir,
                const Environment& environment = {}) {
  args.insert(args.begin(), CORVANE_TOOL_PATH);
  return RunProcess(args, dir, environment);
}

// Apache's workers run as www-data when the tests run as root: what a test puts into the served
// folder must be theirs, or they could not rename or delete it.
void HandToServer(const fs::path& root) {
  if (::geteuid() != 0) {
    return;
  }
  passwd* user = ::getpwnam("www-data");
  ASSERT_NE(user, nullptr);
  ::chown(root.c_str(), user->pw_uid, user->pw_gid);
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    ::chown(entry.path().c_str(), user->pw_uid, user->pw_gid);
  }
}

class CorvaneDavTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(dav_.Start()) << dav_.Error(); }

  Outcome Tool(std::vector<std::string> args) {
    // The password comes from the environment, as a user keeps it out of the process list.
    std::vector<std::string> account = {"--service", "webdav", "--url", dav_.BaseUrl(),
                                        "--user",    kUser,    "--log", Log().string()};
    args.insert(args.begin(), account.begin(), account.end());
    return RunTool(args, temp_.path(), {{"CORVANE_PASSWORD", kPassword}});
  }

  void WriteRemote(const std::string& path, const std::string& content) {
    WriteAll(dav_.Root() / fs::u8path(path), content);
    AgeRemote(path);
    HandToServer(dav_.Root());
  }
  // Apache gives a file changed within the last second a weak ETag, which no If-Match accepts:
  // an hour of age stands for the time a user leaves between two commands.
  void AgeRemote(const std::string& path) {
    fs::last_write_time(dav_.Root() / fs::u8path(path),
                        fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
  void MakeRemoteFolder(const std::string& path) {
    fs::create_directories(dav_.Root() / fs::u8path(path));
    HandToServer(dav_.Root());
  }
  std::string ReadRemote(const std::string& path) {
    return ReadAll(dav_.Root() / fs::u8path(path));
  }
  bool RemoteExists(const std::string& path) { return fs::exists(dav_.Root() / fs::u8path(path)); }
  fs::path Local(const std::string& name) { return temp_.path() / name; }
  fs::path Log() { return temp_.path() / "corvane.log"; }

  TempDir temp_;
  test::DavServer dav_{test::DavServerKind::kApache, kUser, kPassword};
};

// The rclone remote of the server, written the way rclone takes a remote on its command line.
std::string RcloneRemote(const test::DavServer& dav, const fs::path& dir) {
  Outcome obscured = RunProcess({"rclone", "obscure", kPassword}, dir);
  return ":webdav,url='" + dav.BaseUrl() + "',user=" + kUser + ",pass=" + FirstWord(obscured.out) +
         ":";
}

struct Listed {
  bool folder;
  std::int64_t size;
  std::int64_t mtime;
  bool operator==(const Listed& other) const {
    return std::tie(folder, size, mtime) == std::tie(other.folder, other.size, other.mtime);
  }
};

void PrintTo(const Listed& item, std::ostream* out) {
  *out << (item.folder ? "folder" : "file") << " size " << item.size << " mtime " << item.mtime;
}

TEST_F(CorvaneDavTest, TreeListsWhatAnIndependentClientLists) {
  // An account with nesting, an empty file and names that need escaping in a URL.
  const std::vector<std::pair<std::string, std::size_t>> files = {
      {"readme.txt", 12},
      {"empty.dat", 0},
      {"docs/report 2023.pdf", 70000},
      {"docs/100% done.txt", 5},
      {"docs/a&b+c=d.txt", 6},
      {"docs/#hash?.txt", 7},
      {"docs/deep/er/still/file.bin", 4096},
      {u8"Фото/лето.jpg", 2000},
      {u8"mixed ü 日本/naïve café.md", 333},
      {u8"mixed ü 日本/sub/🎉.txt", 9},
      // Siblings whose names sort between "docs" and "docs/...": "-" and "." come before "/".
      {"docs-old/x.txt", 3},
      {"docs.txt", 4},
  };
  for (std::size_t i = 0; i < files.size(); ++i) {
    WriteRemote(files[i].first, RandomBytes(files[i].second, static_cast<unsigned>(i)));
  }
  MakeRemoteFolder("empty folder");

  Outcome tree = Tool({"tree", "--json"});
  ASSERT_EQ(tree.status, 0) << tree.err;

  std::map<std::string, Listed> ours;
  for (const std::string& line : Lines(tree.out)) {
    QJsonObject item = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
    ASSERT_FALSE(item.isEmpty()) << "not a JSON object: " << line;
    bool folder = item["type"].toString() == "folder";
    ours[item["path"].toString().toStdString()] = {
        folder, folder ? -1 : item["size"].toVariant().toLongLong(),
        folder ? 0 : item["mtime"].toVariant().toLongLong()};
    EXPECT_TRUE(folder || !item["hash"].toString().isEmpty()) << line;
  }
  std::vector<std::string> paths;
  for (const auto& entry : ours) {
    paths.push_back(entry.first);
  }
  std::vector<std::string> printed = PrintedPaths(tree.out);
  EXPECT_EQ(printed, paths) << "the tree is printed sorted by path";

  Outcome rclone =
      RunProcess({"rclone", "lsjson", "-R", RcloneRemote(dav_, temp_.path())}, temp_.path());
  ASSERT_EQ(rclone.status, 0) << rclone.err;
  std::map<std::string, Listed> theirs;
  for (const QJsonValue& value :
       QJsonDocument::fromJson(QByteArray::fromStdString(rclone.out)).array()) {
    QJsonObject item = value.toObject();
    bool folder = item["IsDir"].toBool();
    theirs[item["Path"].toString().toStdString()] = {
        folder, folder ? -1 : item["Size"].toVariant().toLongLong(),
        folder ? 0
               : QDateTime::fromString(item["ModTime"].toString(), Qt::ISODate).toSecsSinceEpoch()};
  }
  // 12 files and 9 folders: rclone saw the whole account.
  ASSERT_EQ(theirs.size(), 21u) << rclone.out;
  EXPECT_EQ(ours, theirs);
  EXPECT_THAT(tree.err, HasSubstr("tree: 21 items (12 files, 9 folders)"));

  // A mounted root narrows the account to one folder, its paths relative to it.
  Outcome mounted = Tool({"--root", "docs", "tree", "--json"});
  ASSERT_EQ(mounted.status, 0) << mounted.err;
  std::vector<std::string> below = PrintedPaths(mounted.out);
  EXPECT_THAT(
      below, ::testing::ElementsAre("#hash?.txt", "100% done.txt", "a&b+c=d.txt", "deep", "deep/er",
                                    "deep/er/still", "deep/er/still/file.bin", "report 2023.pdf"));

  // ls shows one level, the same items.
  Outcome ls = Tool({"ls", "docs", "--json"});
  ASSERT_EQ(ls.status, 0) << ls.err;
  std::vector<std::string> listed = PrintedPaths(ls.out);
  EXPECT_THAT(listed,
              ::testing::ElementsAre("docs/#hash?.txt", "docs/100% done.txt", "docs/a&b+c=d.txt",
                                     "docs/deep", "docs/report 2023.pdf"));
}

TEST_F(CorvaneDavTest, FilesGoUpAndComeDownWithTheirControls) {
  const std::string first = RandomBytes(300 * 1024 + 17, 1);
  const std::string second = RandomBytes(200 * 1024 + 3, 2);
  WriteAll(Local("first.bin"), first);
  WriteAll(Local("second.bin"), second);
  MakeRemoteFolder(u8"backup ü");
  const std::string remote = u8"backup ü/data.bin";

  // A new file: the server holds its bytes, the tool prints the server's hash of it.
  Outcome put = Tool({"put", Local("first.bin").string(), remote});
  ASSERT_EQ(put.status, 0) << put.err;
  EXPECT_EQ(ReadRemote(remote), first);
  std::string server_hash = Lines(put.out).at(0);
  EXPECT_FALSE(server_hash.empty());

  // The same name again without --overwrite is a conflict, and the file stays as it was.
  Outcome refused = Tool({"put", Local("second.bin").string(), remote});
  EXPECT_EQ(refused.status, kConflict) << refused.err;
  EXPECT_THAT(refused.err, HasSubstr("CONFLICT"));
  EXPECT_EQ(ReadRemote(remote), first);

  // With --overwrite the control is the current hash, and the new content replaces the old.
  AgeRemote(remote);
  Outcome overwrite = Tool({"put", "--overwrite", Local("second.bin").string(), remote});
  ASSERT_EQ(overwrite.status, 0) << overwrite.err;
  EXPECT_EQ(ReadRemote(remote), second);
  EXPECT_NE(Lines(overwrite.out).at(0), server_hash);

  // The whole file, a range (the limit is the end offset), and stdout.
  Outcome get = Tool({"get", remote, Local("back.bin").string()});
  ASSERT_EQ(get.status, 0) << get.err;
  EXPECT_EQ(ReadAll(Local("back.bin")), second);

  Outcome range =
      Tool({"get", remote, Local("range.bin").string(), "--offset", "1000", "--limit", "70000"});
  ASSERT_EQ(range.status, 0) << range.err;
  EXPECT_EQ(ReadAll(Local("range.bin")), second.substr(1000, 69000));

  WriteRemote("small.txt", "hello, world");
  Outcome to_stdout = Tool({"get", "small.txt", "-"});
  ASSERT_EQ(to_stdout.status, 0) << to_stdout.err;
  EXPECT_EQ(to_stdout.out, "hello, world");

  Outcome missing = Tool({"get", "nothing.here", Local("x").string()});
  EXPECT_EQ(missing.status, kItemMissed) << missing.err;
  EXPECT_THAT(missing.err, HasSubstr("ITEM_MISSED"));
}

TEST_F(CorvaneDavTest, FolderOperationsChangeTheServer) {
  WriteRemote("inbox/letter.txt", "dear");
  WriteRemote("inbox/old/notes.txt", "notes");

  Outcome mkdir = Tool({"mkdir", u8"projects"});
  ASSERT_EQ(mkdir.status, 0) << mkdir.err;
  Outcome nested = Tool({"mkdir", u8"projects/2024 ü"});
  ASSERT_EQ(nested.status, 0) << nested.err;
  EXPECT_TRUE(fs::is_directory(dav_.Root() / fs::u8path(u8"projects/2024 ü")));

  // A file and a folder move; the server's folder shows the new names only.
  Outcome move_file = Tool({"mv", "inbox/letter.txt", u8"projects/2024 ü/letter.txt"});
  ASSERT_EQ(move_file.status, 0) << move_file.err;
  EXPECT_EQ(ReadRemote(u8"projects/2024 ü/letter.txt"), "dear");
  EXPECT_FALSE(RemoteExists("inbox/letter.txt"));

  Outcome move_folder = Tool({"mv", "inbox/old", "archive"});
  ASSERT_EQ(move_folder.status, 0) << move_folder.err;
  EXPECT_EQ(ReadRemote("archive/notes.txt"), "notes");
  EXPECT_FALSE(RemoteExists("inbox/old"));

  // rm takes files only; rmdir takes a folder with everything in it.
  Outcome rm_folder = Tool({"rm", "archive"});
  EXPECT_EQ(rm_folder.status, kFailed);
  EXPECT_THAT(rm_folder.err, HasSubstr("is a folder"));
  EXPECT_TRUE(RemoteExists("archive/notes.txt"));

  Outcome rm = Tool({"rm", u8"projects/2024 ü/letter.txt"});
  ASSERT_EQ(rm.status, 0) << rm.err;
  EXPECT_FALSE(RemoteExists(u8"projects/2024 ü/letter.txt"));

  Outcome rmdir = Tool({"rmdir", "projects"});
  ASSERT_EQ(rmdir.status, 0) << rmdir.err;
  EXPECT_FALSE(RemoteExists("projects"));
  EXPECT_TRUE(RemoteExists("archive"));

  Outcome gone = Tool({"rm", "archive/none.txt"});
  EXPECT_EQ(gone.status, kItemMissed) << gone.err;
}

TEST_F(CorvaneDavTest, AccountCommandsAnswerWhatTheServiceCan) {
  WriteRemote("a.bin", RandomBytes(5000, 3));

  Outcome quota = Tool({"quota", "--json"});
  ASSERT_EQ(quota.status, 0) << quota.err;
  QJsonObject sizes = QJsonDocument::fromJson(QByteArray::fromStdString(quota.out)).object();
  EXPECT_GE(sizes["total"].toVariant().toULongLong(), sizes["used"].toVariant().toULongLong());
  EXPECT_EQ(sizes["free"].toVariant().toULongLong(),
            sizes["total"].toVariant().toULongLong() - sizes["used"].toVariant().toULongLong());

  // Plain WebDAV has no public links and no change feed: the honest answers, not a success.
  Outcome link = Tool({"link", "a.bin"});
  EXPECT_GE(link.status, 10) << link.err;
  EXPECT_THAT(link.err, HasSubstr("corvane: link: a.bin: "));
  EXPECT_EQ(link.out, "");
  Outcome unlink = Tool({"unlink", "a.bin"});
  EXPECT_EQ(unlink.status, kFatal) << unlink.err;
  Outcome changes = Tool({"changes", "--for", "1"});
  EXPECT_EQ(changes.status, kNotSupported) << changes.err;
  EXPECT_THAT(changes.err, HasSubstr("NOT_SUPPORTED"));
}

// A file written to while it goes up never ends on the server as a mix of two versions: its last
// block goes only when the file shows itself untouched since it was measured.
TEST(CorvanePutTest, AFileChangedWhileItIsSentIsNotCompleted) {
  struct Case {
    const char* name;
    std::function<void(const std::filesystem::path&)> change;
    int status;
    int stored;
  };
  const std::vector<Case> cases = {
      {"untouched", [](const std::filesystem::path&) {}, 0, 1},
      {"appended to",
       [](const std::filesystem::path& file) {
         std::ofstream(file, std::ios::binary | std::ios::app) << "more";
       },
       kFailed, 0},
      {"one byte rewritten in place",
       [](const std::filesystem::path& file) {
         std::fstream out(file, std::ios::binary | std::ios::in | std::ios::out);
         out.seekp(1000);
         out.put('x');
       },
       kFailed, 0},
  };
  for (const Case& c : cases) {
    TempDir temp;
    const std::filesystem::path file = temp.path() / "big.bin";
    WriteAll(file, RandomBytes(16 << 20, 5));
    // Made long ago, as files are: a write now shows in its times whatever their resolution.
    std::filesystem::last_write_time(
        file, std::filesystem::last_write_time(file) - std::chrono::hours(1));
    emulators::HttpServer server;
    std::atomic<int> stored{0};
    server.Handle(
        "PUT", "/dav/",
        [&](const emulators::HttpRequest&) {
          ++stored;
          emulators::HttpResponse created = emulators::HttpResponse::Status(201);
          created.headers.push_back({"ETag", "\"1\""});
          return created;
        },
        emulators::Match::kPrefix, emulators::BodyMode::kHashOnly,
        [&](const emulators::HttpRequest&) {
          // Before the server takes any byte of the body, another program writes to the file.
          c.change(file);
          return emulators::HttpResponse::Status(0);
        });

    Outcome run =
        RunProcess({CORVANE_TOOL_PATH, "--service", "webdav", "--url", server.BaseUrl() + "/dav",
                    "--user", "u", "put", file.string(), "big.bin"},
                   temp.path(), {{"CORVANE_PASSWORD", "p"}});
    EXPECT_EQ(run.status, c.status) << c.name << ": " << run.err;
    EXPECT_EQ(stored, c.stored) << c.name;
    if (c.status != 0) {
      EXPECT_THAT(run.err, HasSubstr("big.bin changed while being sent")) << c.name;
    }
  }
}

// The hash command agrees with the tools a user compares it with.
TEST(CorvaneInterruptTest, CtrlCDuringAnUploadEndsItCleanly) {
  // A server that takes the upload and then keeps its answer back, as a stalled link would.
  TempDir temp;
  emulators::HttpServer server;
  std::mutex mutex;
  std::condition_variable changed;
  bool release = false;
  int uploads = 0;
  server.Handle(
      "PUT", "/dav/",
      [&](const emulators::HttpRequest&) {
        std::unique_lock<std::mutex> lock(mutex);
        ++uploads;
        changed.notify_all();
        changed.wait_for(lock, std::chrono::seconds(30), [&] { return release; });
        return emulators::HttpResponse::Status(201);
      },
      emulators::Match::kPrefix, emulators::BodyMode::kHashOnly);
  WriteAll(temp.path() / "big.bin", RandomBytes(4 << 20, 11));

  pid_t pid =
      StartProcess({CORVANE_TOOL_PATH, "--service", "webdav", "--url", server.BaseUrl() + "/dav",
                    "--user", "u", "put", (temp.path() / "big.bin").string(), "big.bin"},
                   temp.path(), {{"CORVANE_PASSWORD", "p"}});
  {
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return uploads > 0; }));
  }
  const auto interrupted = std::chrono::steady_clock::now();
  ASSERT_EQ(::kill(pid, SIGINT), 0);
  Outcome run = WaitProcess(pid, temp.path());
  const auto took = std::chrono::steady_clock::now() - interrupted;
  {
    std::lock_guard<std::mutex> lock(mutex);
    release = true;
  }
  changed.notify_all();

  // The program ends by itself, not by the signal, and says why.
  EXPECT_EQ(run.status, kStopped) << run.err;
  EXPECT_THAT(run.err, HasSubstr("STOPPED"));
  EXPECT_LT(took, std::chrono::seconds(2));
  EXPECT_EQ(uploads, 1);
}

TEST(CorvaneHashTest, AgreesWithIndependentTools) {
  TempDir temp;
  // Empty, short, and past Dropbox's 4 MiB block and QuickXor's 160-bit ring.
  // Three blocks and a tail of the tool's 4 MiB reads, so that a block read ahead out of turn
  // shows.
  const std::vector<std::string> contents = {"", "hello", RandomBytes(12 * 1024 * 1024 + 7, 9)};
  for (std::size_t i = 0; i < contents.size(); ++i) {
    std::string file = (temp.path() / ("content" + std::to_string(i))).string();
    WriteAll(file, contents[i]);
    auto tool = [&](std::vector<std::string> argv) {
      argv.push_back(file);
      return FirstWord(RunProcess(argv, temp.path()).out);
    };
    std::string md5 = tool({"md5sum"});
    std::string sha256 = tool({"sha256sum"});
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"google", md5},
        {"box", tool({"sha1sum"})},
        {"internal", sha256},
        {"yandex", md5 + " " + sha256},
        {"dropbox", test::DropboxHashByOpenssl(file, file + ".piece.")},
        {"quickxor",
         test::QuickXorReference(reinterpret_cast<const std::uint8_t*>(contents[i].data()),
                                 contents[i].size())},
    };
    for (const auto& [type, hash] : expected) {
      ASSERT_EQ(hash.size() >= 32, true) << type << ": the independent tool gave " << hash;
      Outcome ours = RunTool({"hash", "--type", type, file}, temp.path());
      EXPECT_EQ(ours.status, 0) << ours.err;
      EXPECT_EQ(ours.out, hash + "\n") << type << " of content " << i;
    }
  }
}

TEST(CorvaneCommandLineTest, RefusesWhatItCannotDo) {
  TempDir temp;
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string message;
  };
  const std::vector<Case> cases = {
      {{"frob"}, 2, "unknown command frob"},
      {{}, 2, "no command given"},
      {{"get", "only-one"}, 2, "wrong number of arguments for get"},
      {{"--service", "webdav", "--url", "http://127.0.0.1:9", "tree", "--overwrite"},
       2,
       "--overwrite is no option of tree"},
      {{"get", "a", "b", "--offset", "12x"}, 2, "--offset takes a number"},
      {{"--endpoint", "google.drive", "quota"}, 2, "--endpoint takes NAME=URL"},
      {{"hash", "--type", "crc32", "/etc/hostname"}, 2, "--type is one of"},
      {{"hash", "--type", "google", "/no/such/file"}, 3, "cannot read /no/such/file"},
      {{"--service", "nope", "tree"}, 3, "unknown service nope"},
      {{"--service", "webdav", "tree"}, 3, "--url (or CORVANE_URL) is needed for webdav"},
      {{"--service", "box", "quota"}, 3, "--token (or CORVANE_TOKEN) is needed for box"},
      {{"--service", "google", "--token", "t", "--endpoint", "no.such=http://x", "quota"},
       3,
       "unknown endpoint no.such"},
      {{"emulate", "webdav", "--port", "8080"}, 3, "emulate: no emulator for webdav"},
      {{"emulate", "dropbox"}, 2, "--port N is needed"},
  };
  for (const Case& test : cases) {
    Outcome run = RunTool(test.args, temp.path());
    std::string line = ::testing::PrintToString(test.args);
    EXPECT_EQ(run.status, test.status) << line << "\n" << run.err;
    EXPECT_THAT(run.err, HasSubstr(test.message)) << line;
    EXPECT_EQ(run.out, "") << line;
  }
  Outcome help = RunTool({"--help"}, temp.path());
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("usage: corvane"));
}

// The library's answer for a service it has no adapter for reaches the user in one piece: the
// entry's log line in the log file, the tool's message and status; the token shows nowhere.
TEST(CorvaneCommandLineTest, UnreachableServiceAndTokenSecrecy) {
  TempDir temp;
  const std::string token = "ya29.SECRET-token-7f3a";
  const fs::path log = temp.path() / "corvane.log";
  Outcome run = RunTool({"--service", "dropbox", "--token", token, "--log", log.string(),
                         "--endpoint", "dropbox.api=http://127.0.0.1:9", "--endpoint",
                         "dropbox.content=http://127.0.0.1:9", "quota"},
                        temp.path());
  std::string logged = ReadAll(log);
  EXPECT_EQ(run.status, 3);
  EXPECT_THAT(run.err, HasSubstr("the service cannot be reached"));
  EXPECT_THAT(run.err, Not(HasSubstr("Couldn't connect"))) << "the log went to the file";
  EXPECT_THAT(logged, HasSubstr("Couldn't connect"));
  for (const std::string& text : {run.out, run.err, logged}) {
    EXPECT_THAT(text, Not(HasSubstr(token)));
  }
}

}  // namespace

// The tool against a programmable server that misbehaves as real ones do: each failure must be
// told by its exit status and its log line, and must cost the user nothing.
class CorvaneHostileServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_.Handle("PROPFIND", "/dav", [](const emulators::HttpRequest&) { return Quota("5000"); });
    server_.Handle("PROPFIND", "/dav/", [](const emulators::HttpRequest&) {
      return emulators::HttpResponse::Status(
          207, test::Multistatus({{"/dav/", true},
                                  {"/dav/sub/", true},
                                  {"/dav/f.txt", false, 5, "\"e1\""},
                                  {"/dav/big.bin", false, 2 * 1024 * 1024, "\"e2\""}}));
    });
  }

  static emulators::HttpResponse Quota(const std::string& available) {
    return emulators::HttpResponse::Status(
        207,
        "<?xml version=\"1.0\"?><d:multistatus xmlns:d=\"DAV:\"><d:response><d:href>/dav/"
        "</d:href><d:propstat><d:prop><d:quota-available-bytes>" +
            available +
            "</d:quota-available-bytes><d:quota-used-bytes>100</d:quota-used-bytes></d:prop>"
            "<d:status>HTTP/1.1 200 OK</d:status></d:propstat></d:response></d:multistatus>");
  }

  Outcome Tool(std::vector<std::string> args, const std::string& url = std::string()) {
    std::vector<std::string> account = {
        "--service", "webdav", "--url", url.empty() ? server_.BaseUrl() + "/dav" : url,
        "--user",    "u",      "--log", (temp_.path() / "log").string()};
    args.insert(args.begin(), account.begin(), account.end());
    return RunTool(args, temp_.path(), {{"CORVANE_PASSWORD", "p"}});
  }

  std::string Log() const { return ReadAll(temp_.path() / "log"); }

  emulators::HttpServer server_;
  TempDir temp_;
};

TEST_F(CorvaneHostileServerTest, BrokenAnswersFailWithTheirStatusAndLogLine) {
  constexpr int kAuthInvalid = 16;
  const std::string gigabyte_hint = "Answer larger than 1048576 bytes; refused.";
  struct Case {
    const char* name;
    std::string verb;
    std::string path;
    emulators::HttpResponse answer;
    emulators::BodyMode mode;
    std::vector<std::string> args;
    int status;
    std::string log;
  };
  auto cut = [](emulators::HttpResponse response, std::uint64_t after) {
    response.cut_after = after;
    return response;
  };
  auto redirect = emulators::HttpResponse::Status(301);
  redirect.headers = {{"Location", "/dav/f.txt"}};
  const std::string listing =
      test::Multistatus({{"/dav/sub/", true}, {"/dav/sub/a.txt", false, 1, "\"a\""}});
  const Case cases[] = {
      {"listing cut after the 207 head",
       "PROPFIND",
       "/dav/sub/",
       cut(emulators::HttpResponse::Status(207, listing), 120),
       emulators::BodyMode::kStore,
       {"ls", "sub"},
       kFailed,
       "Folder listing is incomplete: sub"},
      {"file of a broken listing is not missing",
       "PROPFIND",
       "/dav/sub/",
       cut(emulators::HttpResponse::Status(207, listing), 120),
       emulators::BodyMode::kStore,
       {"rm", "sub/a.txt"},
       kFailed,
       "Folder listing is incomplete: sub"},
      {"unparsable quota",
       "PROPFIND",
       "/dav",
       Quota("lots"),
       emulators::BodyMode::kStore,
       {"quota"},
       kFailed,
       "Invalid quota value of quota-available-bytes: lots"},
      {"quota past 2^64",
       "PROPFIND",
       "/dav",
       Quota("18446744073709551600"),
       emulators::BodyMode::kStore,
       {"quota"},
       kFailed,
       "Quota out of range: "},
      {"early 201 to an upload",
       "PUT",
       "/dav/up.bin",
       emulators::HttpResponse::Status(201),
       emulators::BodyMode::kAnswerFirst,
       {"put", "big.local", "up.bin"},
       kFailed,
       "bytes of the upload were sent; the upload failed: "},
      {"401 to an upload",
       "PUT",
       "/dav/up.bin",
       emulators::HttpResponse::Status(401),
       emulators::BodyMode::kAnswerFirst,
       {"put", "big.local", "up.bin"},
       kAuthInvalid,
       "Authorization failed (401)."},
      {"401 in the middle of a walk",
       "PROPFIND",
       "/dav/sub/",
       emulators::HttpResponse::Status(401),
       emulators::BodyMode::kStore,
       {"tree"},
       kAuthInvalid,
       "Got error from download thread: AUTH_INVALID"},
      {"gzip nobody asked for",
       "GET",
       "/dav/f.txt",
       emulators::HttpResponse::Gzipped(200, "hello"),
       emulators::BodyMode::kStore,
       {"get", "f.txt", "-"},
       kFailed,
       "Content-Encoding that was not asked for; refused: "},
      {"redirect to itself",
       "GET",
       "/dav/f.txt",
       redirect,
       emulators::BodyMode::kStore,
       {"get", "f.txt", "-"},
       kFailed,
       "Number of redirects hit maximum"},
  };
  WriteAll(temp_.path() / "big.local", RandomBytes(2 * 1024 * 1024, 3));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    server_.Handle(
        c.verb, c.path, [&c](const emulators::HttpRequest&) { return c.answer; },
        emulators::Match::kExact, c.mode);
    std::vector<std::string> args = c.args;
    for (std::string& arg : args) {
      if (arg == "big.local") {
        arg = (temp_.path() / arg).string();
      }
    }
    fs::remove(temp_.path() / "log");
    Outcome run = Tool(args);
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_THAT(Log(), HasSubstr(c.log));
    EXPECT_EQ(run.out.find("hello"), std::string::npos);
    SetUp();  // the next case starts from a well-behaved server
  }
}

// Every refusal a server can give leaves the tool with its own status, 10 plus the Result, and
// names the Result on stderr: a script tells a full disk from refused credentials by the status
// alone. Each refusal comes to a folder's creation and to an upload.
TEST_F(CorvaneHostileServerTest, EveryRefusalEndsTheToolWithItsOwnStatus) {
  struct Case {
    int code;
    int status;
    const char* result;
  };
  const Case cases[] = {
      {401, 16, "AUTH_INVALID"},  {403, 27, "ACCESS_DENIED"}, {404, 14, "CONFLICT"},
      {405, 27, "ACCESS_DENIED"}, {409, 14, "CONFLICT"},      {412, 14, "CONFLICT"},
      {413, 21, "TOO_LARGE"},     {414, 23, "BADNAM"},        {425, 26, "NO_SPACE"},
      {507, 26, "NO_SPACE"},
  };
  WriteAll(temp_.path() / "small.local", "12345");
  for (const Case& c : cases) {
    for (const char* verb : {"MKCOL", "PUT"}) {
      SCOPED_TRACE(std::to_string(c.code) + " to " + verb);
      server_.Handle(
          verb, "/dav/new",
          [&c](const emulators::HttpRequest&) { return emulators::HttpResponse::Status(c.code); },
          emulators::Match::kPrefix);
      const Outcome run = std::string(verb) == "PUT"
                              ? Tool({"put", (temp_.path() / "small.local").string(), "new.txt"})
                              : Tool({"mkdir", "new"});
      // A 405 to MKCOL is the server's word for a folder that exists: what was asked for.
      if (c.code == 405 && std::string(verb) == "MKCOL") {
        EXPECT_EQ(run.status, 0) << run.err;
        continue;
      }
      EXPECT_EQ(run.status, c.status) << run.err;
      EXPECT_THAT(run.err, HasSubstr(std::string(": ") + c.result));
    }
  }
}

TEST_F(CorvaneHostileServerTest, AFailedGetLeavesTheLocalFileAsItWas) {
  auto reset = emulators::HttpResponse::Status(200, "fresh");
  reset.reset = true;
  auto cut = emulators::HttpResponse::Status(200, "fresh");
  cut.cut_after = 2;
  auto moved = emulators::HttpResponse::Status(200, "fresh");
  moved.headers = {{"ETag", "\"other\""}};
  struct Case {
    const char* name;
    emulators::HttpResponse answer;
    int status;
    std::string log;
  };
  const Case cases[] = {
      {"reset before the answer", reset, 3, "Failed to read response code"},
      {"cut", cut, kFailed, "failed: "},
      {"stall past the timeout", emulators::HttpResponse::Trickling(400), kStopped, "Stopped."},
      {"content of another version", moved, kFailed, "Invalid content received"},
  };
  const std::string precious = RandomBytes(3000, 5);
  const fs::path target = temp_.path() / "local.txt";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteAll(target, precious);
    server_.Handle("GET", "/dav/f.txt", [&c](const emulators::HttpRequest&) { return c.answer; });
    fs::remove(temp_.path() / "log");
    auto start = std::chrono::steady_clock::now();
    Outcome run = Tool({"--timeout", "1", "get", "f.txt", target.string()});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(run.status, c.status) << run.err;
    EXPECT_THAT(Log(), HasSubstr(c.log));
    EXPECT_EQ(ReadAll(target), precious);
    std::size_t files = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(temp_.path())) {
      ++files;
    }
    EXPECT_EQ(files, 4u) << "a temporary file was left behind";  // local.txt, log, stdout, stderr
    if (c.status == kStopped) {
      EXPECT_THAT(run.err, HasSubstr(": STOPPED: timed out after 1 s"));
    }
  }
  // A read that goes well replaces the file, with the permissions it had.
  fs::permissions(target, fs::perms::owner_read | fs::perms::owner_write);
  server_.Handle("GET", "/dav/f.txt", [](const emulators::HttpRequest&) {
    return emulators::HttpResponse::Status(200, "fresh");
  });
  Outcome run = Tool({"get", "f.txt", target.string()});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ReadAll(target), "fresh");
  EXPECT_EQ(fs::status(target).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(CorvaneHostileServerTest, AGigabyteQuotaAnswerCostsLittleMemory) {
  server_.Handle("PROPFIND", "/dav", [](const emulators::HttpRequest&) {
    emulators::HttpResponse response = emulators::HttpResponse::Status(207);
    response.generated_size = std::uint64_t{1} << 30;
    return response;
  });
  pid_t pid =
      StartProcess({CORVANE_TOOL_PATH, "--service", "webdav", "--url", server_.BaseUrl() + "/dav",
                    "--log", (temp_.path() / "log").string(), "quota"},
                   temp_.path());
  int status = 0;
  rusage usage{};
  ASSERT_EQ(::wait4(pid, &status, 0, &usage), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), kFailed);
  EXPECT_THAT(Log(), HasSubstr("Answer larger than 1048576 bytes; refused."));
  EXPECT_THAT(ReadAll(temp_.path() / "stderr"), HasSubstr("quota: GetCloudSize: FAILED"));
  // ru_maxrss is in KiB. The sanitizers' shadow memory is no part of what the tool holds.
#if defined(__SANITIZE_ADDRESS__)
  constexpr long kLimitKiB = 256 * 1024;
#else
  constexpr long kLimitKiB = 64 * 1024;
#endif
  EXPECT_LT(usage.ru_maxrss, kLimitKiB) << "peak memory of quota against a 1 GiB answer";
}

TEST_F(CorvaneHostileServerTest, ARefusedConnectionIsAServiceOutOfReach) {
  Outcome run = Tool({"ls"}, "http://127.0.0.1:1/dav");
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_THAT(run.err, HasSubstr("ls: GetFolderListing: FAILED: the service cannot be reached"));
  EXPECT_THAT(Log(), HasSubstr("failed: Couldn't connect to server"));
}

TEST_F(CorvaneHostileServerTest, NamesCanNeitherForgeLinesNorBreakJson) {
  // Percent-encoded in the listing as a server sends them: LF, CR, ESC, tab, a lone 0xFF.
  server_.Handle("PROPFIND", "/dav/", [](const emulators::HttpRequest&) {
    return emulators::HttpResponse::Status(
        207, test::Multistatus({{"/dav/", true},
                                {"/dav/a%0Afile%20x", false, 1, "\"1\""},
                                {"/dav/b%0Dc", false, 1, "\"2\""},
                                {"/dav/%1B%5B31mred", false, 1, "\"3\""},
                                {"/dav/t%09ab", false, 1, "\"4\""},
                                {"/dav/bad%FFbyte", false, 1, "\"5\""}}));
  });
  Outcome text = Tool({"ls"});
  ASSERT_EQ(text.status, 0) << text.err;
  const std::vector<std::string> lines = Lines(text.out);
  EXPECT_EQ(lines.size(), 5u) << text.out;
  for (char raw : {'\r', '\x1b', '\t'}) {
    EXPECT_EQ(text.out.find(raw), std::string::npos) << static_cast<int>(raw);
  }
  EXPECT_THAT(text.out, HasSubstr("a\\x0afile x"));
  EXPECT_THAT(text.out, HasSubstr("\\x1b[31mred"));
  EXPECT_THAT(text.out, HasSubstr("bad\\xffbyte"));

  Outcome json = Tool({"ls", "--json"});
  ASSERT_EQ(json.status, 0) << json.err;
  std::vector<std::string> paths;
  for (const std::string& line : Lines(json.out)) {
    QJsonParseError error{};
    QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(line), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << line;
    // Qt replaces invalid UTF-8 on its own: the bytes must already be valid.
    EXPECT_TRUE(QString::fromUtf8(line.data(), static_cast<int>(line.size())).toUtf8() ==
                QByteArray::fromStdString(line))
        << line;
    paths.push_back(document.object()["path"].toString().toStdString());
  }
  EXPECT_EQ(paths, (std::vector<std::string>{"\x1b[31mred", "a\nfile x", "b\rc",
                                             "bad\xef\xbf\xbd"
                                             "byte",
                                             "t\tab"}));
}

TEST_F(CorvaneHostileServerTest, TheTimeoutEndsAWalkThatRetriesWithoutEnd) {
  // A folder that always fails is retried for as long as the walk runs; only a stop ends it.
  server_.Handle("PROPFIND", "/dav/sub/", [](const emulators::HttpRequest&) {
    return emulators::HttpResponse::Status(500);
  });
  auto start = std::chrono::steady_clock::now();
  Outcome run = Tool({"--timeout", "1", "tree"});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(run.status, kStopped) << run.err;
  EXPECT_THAT(run.err, HasSubstr("tree: GetFullTree: STOPPED: timed out after 1 s"));
  EXPECT_THAT(Log(), HasSubstr("Failed downloading directory: FAILED"));
}
