// What the emulators need of the HTTP server beyond the transport's tests: an answer decided on
// the request's head, digests of a body that isn't kept, header names sent with blanks around.
#include "emulators/HttpServer.h"

#include <atomic>

#include <gtest/gtest.h>

#include "support/Fetch.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;

TEST(HttpServerTest, TheHeadDecidesWhetherTheBodyIsRead) {
  emulators::HttpServer server;
  std::atomic<int> handled{0};
  server.Handle(
      "PUT", "/upload",
      [&](const HttpRequest& request) {
        ++handled;
        return HttpResponse::Status(201, request.body_digests.md5);
      },
      emulators::Match::kExact, emulators::BodyMode::kDigestOnly,
      [](const HttpRequest& head) {
        // Known content: answered at once, the body never read.
        return head.Header("Etag") == "known" ? HttpResponse::Status(201, "known")
                                              : HttpResponse::Status(0);
      });
  test::Answer known =
      test::Fetch("PUT", server.BaseUrl() + "/upload", "", "abc", "", "Etag : known");
  EXPECT_EQ(known.status, 201);
  EXPECT_EQ(known.body, "known");
  EXPECT_EQ(handled.load(), 0);
  test::Answer sent = test::Fetch("PUT", server.BaseUrl() + "/upload", "", "abc");
  EXPECT_EQ(sent.status, 201);
  EXPECT_EQ(sent.body, "900150983cd24fb0d6963f7d28e17f72");
  HttpRequest logged = server.Requests().back();
  EXPECT_TRUE(logged.body.empty());
  EXPECT_EQ(logged.body_size, 3u);
  EXPECT_EQ(logged.body_digests.sha1, "a9993e364706816aba3e25717850c26c9cd0d89d");
}

}  // namespace
