// Stop() from another thread must end every kind of stalled call quickly, and Start() must bring
// the processor back.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "core/CurlURLProcessor.h"
#include "emulators/HttpServer.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;
using Result = URLProcessor::Result;
using Clock = std::chrono::steady_clock;

// A loose bound that holds on a loaded machine. The processor's poll round is made far longer
// (kIdlePollMs), so that only a Stop() that wakes the call meets it: one that waits for the
// round to end takes a minute.
constexpr auto kStopBound = std::chrono::milliseconds(1000);
constexpr int kIdlePollMs = 60'000;

// Set by the server's handler once the request has arrived: from then on the call waits on an
// idle connection.
class Arrival {
 public:
  void Signal() {
    std::lock_guard<std::mutex> lock(mutex_);
    arrived_ = true;
    changed_.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return arrived_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool arrived_ = false;
};

// A listener whose accept queue is full, so that a further connect hangs in the handshake.
class BlackHole {
 public:
  BlackHole() {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::listen(fd_, 0);
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    for (int& filler : fillers_) {
      filler = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      ::connect(filler, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    }
  }
  ~BlackHole() {
    for (int filler : fillers_) {
      ::close(filler);
    }
    ::close(fd_);
  }
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = 0;
  int fillers_[4] = {-1, -1, -1, -1};
};

class URLProcessorStopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(http_.Open(nullptr));
    http_.SetPollIntervalMs(kIdlePollMs);
    server_.Handle("GET", "/stall",
                   [](const HttpRequest&) { return HttpResponse::Trickling(20000); });
    server_.Handle("GET", "/ok",
                   [](const HttpRequest&) { return HttpResponse::Status(200, "ok"); });
  }

  URLProcessor::Request Make(const std::string& verb, const std::string& path) {
    URLProcessor::Request request;
    request.verb = verb;
    request.url = DispatcherUrl::FromString(server_.BaseUrl() + path);
    return request;
  }

  // Runs `call` on this thread, stops it from another one once `blocked` returns, and answers
  // how long the call went on after the stop.
  template <typename Call>
  Clock::duration StopDuring(Call call, const std::function<void()>& blocked) {
    std::promise<Clock::time_point> stopped_at;
    std::thread stopper([&] {
      blocked();
      stopped_at.set_value(Clock::now());
      http_.Stop();
    });
    call();
    Clock::time_point returned = Clock::now();
    stopper.join();
    return returned - stopped_at.get_future().get();
  }
  template <typename Call>
  Clock::duration StopOnArrival(Call call) {
    return StopDuring(call, [this] { arrival_.Wait(); });
  }

  // One exchange with `server`, so that the next request goes out on a connection already open,
  // where no timer of the connect is left to wake the call: only the stop can.
  void OpenIdleConnection(emulators::HttpServer& server) {
    server.Handle("GET", "/ok", [](const HttpRequest&) { return HttpResponse::Status(200, "ok"); });
    URLProcessor::Request request;
    request.url = DispatcherUrl::FromString(server.BaseUrl() + "/ok");
    std::string body;
    ASSERT_TRUE(http_.Send(request));
    EXPECT_EQ(http_.GetInputStream()->ReadAllTo(&body, 4096), StreamResult::END);
    EXPECT_EQ(http_.Finish(), Result::OK);
  }

  void ExpectUsableAfterStart() {
    http_.Start();
    std::string body;
    ASSERT_TRUE(http_.Send(Make("GET", "/ok")));
    EXPECT_EQ(http_.GetInputStream()->ReadAllTo(&body, 4096), StreamResult::END);
    EXPECT_EQ(http_.Finish(), Result::OK);
    EXPECT_EQ(body, "ok");
  }

  Arrival arrival_;
  emulators::HttpServer server_;
  CurlURLProcessor http_;
};

TEST_F(URLProcessorStopTest, StopEndsAStalledDownload) {
  OpenIdleConnection(server_);
  ASSERT_TRUE(http_.Send(Make("GET", "/stall")));
  StreamResult read = StreamResult::OK;
  std::string body;
  // The stop comes once the first trickle is read, while the next is 20 s away.
  auto late = StopDuring(
      [&] {
        std::uint8_t block[4096];
        std::uint32_t done = 0;
        while ((read = http_.GetInputStream()->Read(block, sizeof(block), &done)) ==
               StreamResult::OK) {
          body.append(reinterpret_cast<const char*>(block), done);
          if (body.size() == 10) {
            arrival_.Signal();
          }
        }
      },
      [this] { arrival_.Wait(); });
  EXPECT_LT(late, kStopBound);
  EXPECT_EQ(read, StreamResult::STOPPED);
  EXPECT_EQ(body.size(), 10u);
  EXPECT_EQ(http_.Finish(), Result::STOPPED);
  ExpectUsableAfterStart();
}

TEST_F(URLProcessorStopTest, StopEndsAStalledUpload) {
  // The server never reads the body: the socket buffers fill and curl stalls.
  emulators::HttpServer deaf;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  deaf.Handle(
      "PUT", "/up",
      [this, released](const HttpRequest&) {
        arrival_.Signal();
        released.wait();
        return HttpResponse::Status(201);
      },
      emulators::Match::kExact, emulators::BodyMode::kAnswerFirst);
  URLProcessor::Request request;
  request.verb = "PUT";
  request.url = DispatcherUrl::FromString(deaf.BaseUrl() + "/up");
  request.headers = {"Expect:"};
  OpenIdleConnection(deaf);
  ASSERT_TRUE(http_.BeginUpload(request, 1ull << 32));
  std::vector<std::uint8_t> block(1 << 20, 1);
  StreamResult written = StreamResult::OK;
  auto late = StopOnArrival([&] {
    while (written == StreamResult::OK) {
      written = http_.GetOutputStream()->Write(block.data(), block.size());
    }
  });
  EXPECT_LT(late, kStopBound);
  EXPECT_EQ(written, StreamResult::STOPPED);
  EXPECT_EQ(http_.Finish(), Result::STOPPED);
  release.set_value();
  ExpectUsableAfterStart();
}

TEST_F(URLProcessorStopTest, StopEndsASlowConnectAndAWaitForTheHead) {
  BlackHole hole;
  URLProcessor::Request request;
  request.url = DispatcherUrl::FromString("http://127.0.0.1:" + std::to_string(hole.port()) + "/");
  bool sent = true;
  // Nothing tells when the handshake has begun: the stop comes a moment after the call, and is
  // met either way, before the call or inside the connect.
  auto late = StopDuring([&] { sent = http_.Send(request); },
                         [] { std::this_thread::sleep_for(std::chrono::milliseconds(200)); });
  EXPECT_LT(late, kStopBound);
  EXPECT_FALSE(sent);
  EXPECT_EQ(http_.Finish(), Result::STOPPED);
  http_.Start();

  server_.Handle("GET", "/late", [this](const HttpRequest&) {
    arrival_.Signal();
    HttpResponse response = HttpResponse::Status(200);
    response.delay_ms = 20000;
    return response;
  });
  OpenIdleConnection(server_);
  late = StopOnArrival([&] { sent = http_.Send(Make("GET", "/late")); });
  EXPECT_LT(late, kStopBound);
  EXPECT_FALSE(sent);
  EXPECT_EQ(http_.Finish(), Result::STOPPED);
  ExpectUsableAfterStart();
}

TEST_F(URLProcessorStopTest, AStoppedProcessorAnswersStoppedUntilStart) {
  http_.Stop();
  EXPECT_FALSE(http_.Send(Make("GET", "/ok")));
  EXPECT_EQ(http_.Finish(), Result::STOPPED);
  EXPECT_FALSE(http_.BeginUpload(Make("PUT", "/ok"), 10));
  EXPECT_EQ(http_.Finish(), Result::STOPPED);
  EXPECT_TRUE(server_.Requests().empty());
  ExpectUsableAfterStart();
}

}  // namespace
