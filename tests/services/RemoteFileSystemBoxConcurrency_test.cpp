// Box under threads (also run under ThreadSanitizer): adapters of one factory uploading sessions
// side by side into one folder, and the level-parallel tree with its bound on requests in flight
// and the global pool given back however the download ends.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QCryptographicHash>
#include <QThreadPool>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "core/Clock.h"
#include "core/HashCalculators.h"
#include "emulators/BoxDialect.h"
#include "emulators/Faults.h"
#include "services/BoxTesting.h"
#include "support/HashOf.h"

namespace {

using FS = FileSystem;

std::string Digest(const std::string& data, QCryptographicHash::Algorithm algorithm) {
  return QCryptographicHash::hash(QByteArray::fromStdString(data), algorithm).toHex().toStdString();
}

constexpr auto BoxHashOf = test::HashOf<HashCalculatorBox>;

std::string Bytes(std::size_t size, unsigned seed) {
  std::string data(size, '\0');
  std::uint32_t state = seed * 2654435761u + 1;
  for (char& byte : data) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return data;
}

FS::Result Upload(RemoteFileSystem& fs, const std::string& path, const std::string& data) {
  std::uint64_t offset = 0;
  FS::Result result = fs.OpenForCreate(FS::OverwriteControl(), path, BoxHashOf(data), data.size(),
                                       1700000000, &offset, false);
  for (std::uint64_t at = offset; result == FS::SUCCEEDED && at < data.size(); at += 1 << 20) {
    auto n = static_cast<std::uint32_t>(std::min<std::uint64_t>(1 << 20, data.size() - at));
    result = fs.WriteFile(reinterpret_cast<const std::uint8_t*>(data.data()) + at, n);
  }
  FS::FileProperties props;
  return result == FS::SUCCEEDED ? fs.CloseFile(&props) : result;
}

// Box's dialect with every handler counted while it runs. When gathering, a listing of a folder
// below the root is held until four are in at once (or two seconds passed), so that requests sent
// together meet on the server whatever the load.
class InFlightDialect : public emulators::Dialect, private emulators::Router {
 public:
  InFlightDialect() : box_(emulators::MakeBoxDialect()) {}
  const char* Service() const override { return box_->Service(); }
  emulators::HostList Hosts() const override { return box_->Hosts(); }
  emulators::HttpResponse Error(int status, const std::string& code) const override {
    return box_->Error(status, code);
  }
  std::unique_ptr<emulators::CloudAccount> MakeAccount() const override {
    return box_->MakeAccount();
  }
  void Install(emulators::Router& router) override {
    router_ = &router;
    box_->Install(*this);
  }
  int MaxInFlight() const { return max_.load(); }
  void Reset(bool gather) {
    max_ = 0;
    gather_ = gather;
  }

 private:
  void Handle(const std::string& verb, const std::string& path, emulators::Handler handler,
              emulators::RouteOptions options) override {
    router_->Handle(
        verb, path,
        [this, handler = std::move(handler)](const emulators::HttpRequest& request) {
          const int now = ++in_flight_;
          for (int seen = max_.load(); now > seen && !max_.compare_exchange_weak(seen, now);) {
          }
          if (gather_ && request.path.rfind("/2.0/folders/0/", 0) != 0 &&
              request.path.rfind("/2.0/folders/", 0) == 0) {
            std::unique_lock<std::mutex> lock(mutex_);
            met_.notify_all();
            met_.wait_for(lock, std::chrono::seconds(2), [this] { return in_flight_ >= 4; });
          }
          emulators::HttpResponse response = handler(request);
          --in_flight_;
          return response;
        },
        std::move(options));
  }
  emulators::CloudAccount& account() override { return router_->account(); }
  std::string BaseUrl() const override { return router_->BaseUrl(); }

  std::unique_ptr<emulators::Dialect> box_;
  emulators::Router* router_ = nullptr;
  std::atomic<int> in_flight_{0};
  std::atomic<int> max_{0};
  std::atomic<bool> gather_{false};
  std::mutex mutex_;
  std::condition_variable met_;
};

struct SentPart {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::uint64_t total = 0;
  std::string digest;  // the "Digest" header
  std::string body_sha256;
};

TEST(RemoteFileSystemBoxConcurrency, FourAdaptersUploadSessionsIntoOneFolderAtOnce) {
  test::BoxAccount box;
  box.account().SetKeepContentLimit(0);
  const std::string folder = box.Folder("0", "shared");
  utils::ManualClock clock;  // the commits' Retry-After
  utils::ScopedClock scoped(&clock);
  {
    auto loader = box.Open();
    FolderNode root;
    std::uint64_t free = 0, total = 0;
    ASSERT_EQ(loader->GetFullTree(&root, &free, &total, nullptr), FS::SUCCEEDED);
  }
  box.emulator->server().ClearRequests();

  // 1. Four files of sizes that tell them apart, each in its own adapter and thread.
  constexpr int kFiles = 4;
  std::vector<std::string> files;
  for (int i = 0; i < kFiles; ++i)
    files.push_back(Bytes(rest_api::RemoteFileSystemBox::kSessionUploadFrom + 1000 * i + 7, i));
  std::vector<std::unique_ptr<rest_api::RemoteFileSystemBox>> adapters;
  for (int i = 0; i < kFiles; ++i)
    adapters.push_back(box.Open());
  std::vector<FS::Result> results(kFiles, FS::FAILED);
  std::vector<std::thread> threads;
  for (int i = 0; i < kFiles; ++i) {
    threads.emplace_back([&, i] {
      results[i] = Upload(*adapters[i], "shared/f" + std::to_string(i) + ".bin", files[i]);
    });
  }
  for (std::thread& thread : threads)
    thread.join();

  // 2. Every file landed whole, in the folder, and in the shared id tree.
  for (int i = 0; i < kFiles; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(results[i], FS::SUCCEEDED);
    const std::string name = "f" + std::to_string(i) + ".bin";
    std::optional<emulators::Item> item = box.account().ChildByName(folder, name);
    ASSERT_TRUE(item);
    EXPECT_EQ(item->size, files[i].size());
    EXPECT_EQ(item->digests.sha256, Digest(files[i], QCryptographicHash::Sha256));
    EXPECT_EQ(box.Shared().ids.GetFileIdByPath("shared/" + name), item->id);
  }
  EXPECT_EQ(box.Shared().sessions.Count(), 0u);

  // 3. The sessions never crossed: each session's parts are slices of one file, in its ranges,
  // with that slice's digest, and they cover the file once.
  std::map<std::string, std::vector<SentPart>> by_session;
  for (const auto& request : box.emulator->server().Requests()) {
    if (request.verb != "PUT" || request.path.rfind("/upload/2.0/files/upload_sessions/", 0) != 0)
      continue;
    SentPart part;
    unsigned long long first = 0, last = 0, total = 0;
    ASSERT_EQ(std::sscanf(request.Header("Content-Range").c_str(), "bytes %llu-%llu/%llu", &first,
                          &last, &total),
              3);
    part = {first, last, total, request.Header("Digest"), request.body_sha256};
    by_session[request.path].push_back(part);
  }
  ASSERT_EQ(by_session.size(), static_cast<std::size_t>(kFiles));
  std::vector<bool> seen(kFiles, false);
  for (auto& [session, parts] : by_session) {
    SCOPED_TRACE(session);
    auto file = std::find_if(files.begin(), files.end(),
                             [&](const std::string& f) { return f.size() == parts[0].total; });
    ASSERT_NE(file, files.end());
    const auto index = static_cast<std::size_t>(file - files.begin());
    EXPECT_FALSE(seen[index]);
    seen[index] = true;
    std::sort(parts.begin(), parts.end(),
              [](const SentPart& a, const SentPart& b) { return a.first < b.first; });
    std::uint64_t next = 0;
    for (const SentPart& part : parts) {
      EXPECT_EQ(part.first, next);
      EXPECT_EQ(part.total, file->size());
      const std::string slice = file->substr(part.first, part.last - part.first + 1);
      EXPECT_EQ(part.body_sha256, Digest(slice, QCryptographicHash::Sha256));
      EXPECT_EQ(part.digest, "sha=" + QCryptographicHash::hash(QByteArray::fromStdString(slice),
                                                               QCryptographicHash::Sha1)
                                          .toBase64()
                                          .toStdString());
      next = part.last + 1;
    }
    EXPECT_EQ(next, file->size());
  }
}

TEST(RemoteFileSystemBoxConcurrency, TreeKeepsFourInFlightAndGivesThePoolBack) {
  enum class End { kSuccess, kFailure, kStop };
  for (End end : {End::kSuccess, End::kFailure, End::kStop}) {
    SCOPED_TRACE(static_cast<int>(end));
    auto dialect = std::make_unique<InFlightDialect>();
    InFlightDialect& watched = *dialect;
    test::BoxAccount box(std::move(dialect), std::string());
    // 1. Twelve folders on the first level, each with a file and a folder below.
    for (int i = 0; i < 12; ++i) {
      std::string top = box.Folder("0", "t" + std::to_string(i));
      box.File(top, "f", "x");
      box.Folder(top, "s");
    }
    if (end == End::kFailure) {
      box.emulator->faults().Add(emulators::FaultRule::On("", "/2.0/folders/").Nth(5).Status(403));
    }
    if (end == End::kStop) {
      box.emulator->faults().Add(
          emulators::FaultRule::On("", "/2.0/folders/").Nth(3).Times(0).DelayMs(300));
    }
    QThreadPool::globalInstance()->setMaxThreadCount(7);
    watched.Reset(end == End::kSuccess);

    // 2. The download, stopped from another thread in the last case.
    auto fs = box.Open();
    FolderNode root;
    std::thread stopper;
    if (end == End::kStop) {
      stopper = std::thread([&fs] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        fs->Stop();
      });
    }
    const auto started = std::chrono::steady_clock::now();
    FS::Result result = test::ReadTree(*fs, &root);
    const auto took = std::chrono::steady_clock::now() - started;
    if (stopper.joinable())
      stopper.join();

    // 3. The answer, the bound, and the pool as it was.
    const FS::Result expected = end == End::kSuccess   ? FS::SUCCEEDED
                                : end == End::kFailure ? FS::ACCESS_DENIED
                                                       : FS::STOPPED;
    EXPECT_EQ(result, expected);
    if (end == End::kSuccess) {
      EXPECT_EQ(root.GetFolderAtPath("t11/s") != nullptr, true);
      EXPECT_EQ(watched.MaxInFlight(), 4);
    }
    EXPECT_LE(watched.MaxInFlight(), 4);
    // Parallelism is told by the requests in flight above; the clock only bounds a Stop, which
    // must end the download within a second however loaded the machine is.
    if (end == End::kStop) {
      EXPECT_LT(took, std::chrono::seconds(1) + std::chrono::milliseconds(100));
    }
    EXPECT_EQ(QThreadPool::globalInstance()->maxThreadCount(), 7);
  }
}

}  // namespace
