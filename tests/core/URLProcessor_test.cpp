#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>

#include "core/Cookie.h"
#include "core/CurlURLProcessor.h"
#include "core/LoggerWrapper.h"
#include "emulators/HttpServer.h"

namespace {

using emulators::BodyMode;
using emulators::HttpRequest;
using emulators::HttpResponse;
using emulators::Match;
using Result = URLProcessor::Result;

class URLProcessorTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(http_->Open(&head_)); }

  URLProcessor::Request Make(const std::string& verb, const std::string& path) {
    URLProcessor::Request request;
    request.verb = verb;
    request.url = DispatcherUrl::FromString(server_.BaseUrl() + path);
    return request;
  }

  // Sends, reads the whole body, finishes.
  Result Exchange(const URLProcessor::Request& request, std::string* body,
                  StreamResult* read = nullptr) {
    if (http_->Send(request)) {
      StreamResult end = http_->GetInputStream()->ReadAllTo(body, 4096);
      if (read) {
        *read = end;
      }
    }
    return http_->Finish();
  }

  emulators::HttpServer server_;
  std::string head_;
  std::shared_ptr<CurlURLProcessor> http_ = std::make_shared<CurlURLProcessor>();
};

TEST_F(URLProcessorTest, EveryVerbReachesTheServerWithItsHeadersAndBody) {
  server_.Handle(
      "*", "/",
      [](const HttpRequest& request) {
        return HttpResponse::Status(request.verb == "PROPFIND" ? 207 : 201,
                                    "answer:" + request.verb);
      },
      Match::kPrefix);
  struct Case {
    const char* verb;
    std::string body;
    Result expected;
  };
  const Case cases[] = {
      {"GET", "", Result::CREATED},           {"POST", "{\"a\":1}", Result::CREATED},
      {"PUT", "payload", Result::CREATED},    {"PATCH", "{}", Result::CREATED},
      {"DELETE", "", Result::CREATED},        {"PROPFIND", "<propfind/>", Result::MULTI_STATUS},
      {"PROPPATCH", "<x/>", Result::CREATED}, {"MKCOL", "", Result::CREATED},
      {"MOVE", "", Result::CREATED},          {"COPY", "", Result::CREATED},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.verb);
    server_.ClearRequests();
    URLProcessor::Request request = Make(c.verb, "/dav/a%20b?x=1");
    request.headers = {"Depth: 1", "Destination: http://h/b"};
    request.body = c.body;
    request.content_type = c.body.empty() ? "" : "text/xml; charset=utf-8";
    std::string body;
    EXPECT_EQ(Exchange(request, &body), c.expected);
    EXPECT_EQ(body, std::string("answer:") + c.verb);
    auto requests = server_.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].verb, c.verb);
    EXPECT_EQ(requests[0].path, "/dav/a%20b");
    EXPECT_EQ(requests[0].query, "x=1");
    EXPECT_EQ(requests[0].Header("Depth"), "1");
    EXPECT_EQ(requests[0].Header("Destination"), "http://h/b");
    EXPECT_EQ(requests[0].body, c.body);
    EXPECT_EQ(requests[0].Header("Content-Type"), request.content_type);
    EXPECT_FALSE(requests[0].HasHeader("Expect"));
  }
  // All of them went over one connection.
  EXPECT_EQ(server_.ConnectionCount(), 1);
}

TEST_F(URLProcessorTest, HeadGivesTheHeadWithoutBody) {
  server_.Handle("HEAD", "/f", [](const HttpRequest&) {
    HttpResponse response = HttpResponse::Status(200);
    response.generated_size = 12345;
    return response;
  });
  std::string body;
  StreamResult read = StreamResult::FAILED;
  EXPECT_EQ(Exchange(Make("HEAD", "/f"), &body, &read), Result::OK);
  EXPECT_EQ(read, StreamResult::END);
  EXPECT_TRUE(body.empty());
  EXPECT_EQ(GetTotalPayloadSizeFromHTTPHeaders(http_->GetResponseHeaders()), "12345");
}

TEST_F(URLProcessorTest, ResponseHeadIsKeptInTheOpenStringAndHttpCodesMapToResults) {
  struct Case {
    int status;
    Result expected;
  };
  const Case cases[] = {{200, Result::OK},          {201, Result::CREATED},
                        {202, Result::ACCEPTED},    {204, Result::NO_CONTENT},
                        {403, Result::FORBIDDEN},   {404, Result::NOT_FOUND},
                        {429, Result::HTTP_FAILED}, {451, Result::BLOCKED},
                        {503, Result::HTTP_FAILED}, {308, Result::HTTP_FAILED}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    server_.Handle("POST", "/x", [&](const HttpRequest&) {
      HttpResponse response = HttpResponse::Status(c.status, "{\"error\":1}");
      response.headers = {{"Retry-After", "7"}, {"Range", "bytes=0-99"}};
      return response;
    });
    std::string body;
    EXPECT_EQ(Exchange(Make("POST", "/x"), &body), c.expected);
    EXPECT_EQ(http_->GetResponseCode(), c.status);
    EXPECT_EQ(&http_->GetResponseHeaders(), &head_);
    EXPECT_EQ(GetValueFromHTTPHeaders(head_, "retry-after", true), "7");
    EXPECT_EQ(GetValueFromHTTPHeaders(head_, "Range", true), "bytes=0-99");
    EXPECT_EQ(body, c.status == 204 ? "" : "{\"error\":1}");
  }
}

TEST_F(URLProcessorTest, NoResponseHeadersBufferLeavesTheHeadEmptyButTheCodeKnown) {
  server_.Handle("GET", "/x", [](const HttpRequest&) { return HttpResponse::Status(404); });
  http_->SetNoResponseHeadersBuffer();
  std::string body;
  EXPECT_EQ(Exchange(Make("GET", "/x"), &body), Result::NOT_FOUND);
  EXPECT_EQ(http_->GetResponseCode(), 404);
  EXPECT_TRUE(head_.empty());
}

TEST_F(URLProcessorTest, RangedReadsSendTheRangeAndTheAnswerIsChecked) {
  constexpr std::uint64_t kSize = 100000;
  server_.Handle("GET", "/blob", [](const HttpRequest& request) {
    // Honours "bytes=a-b" and "bytes=a-"; "/ignore" answers the whole body with 200.
    std::string range = request.Header("Range");
    std::uint64_t first = std::stoull(range.substr(6));
    std::string tail = range.substr(range.find('-') + 1);
    std::uint64_t last = tail.empty() ? kSize - 1 : std::stoull(tail);
    HttpResponse response = HttpResponse::Status(206);
    response.generated_offset = first;
    response.generated_size = last - first + 1;
    response.headers = {{"Content-Range", "bytes " + std::to_string(first) + "-" +
                                              std::to_string(last) + "/" + std::to_string(kSize)}};
    return response;
  });
  struct Case {
    std::uint64_t first;
    boost::optional<std::uint64_t> last;
    const char* header;
  };
  const Case cases[] = {{0, 99, "bytes=0-99"},
                        {4097, boost::none, "bytes=4097-"},
                        {kSize - 1, kSize - 1, "bytes=99999-99999"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.header);
    URLProcessor::Request request = Make("GET", "/blob");
    request.range = URLProcessor::Range{c.first, c.last};
    std::string body;
    EXPECT_EQ(Exchange(request, &body), Result::PARTIAL_CONTENT);
    EXPECT_EQ(server_.Requests().back().Header("Range"), c.header);
    std::uint64_t last = c.last ? *c.last : kSize - 1;
    EXPECT_EQ(body, emulators::PatternString(c.first, last - c.first + 1));
    EXPECT_TRUE(URLProcessor::CheckRangeInResponseHeaders(head_, c.first, c.last, kSize));
    EXPECT_FALSE(
        URLProcessor::CheckRangeInResponseHeaders(head_, c.first + 1, boost::none, boost::none));
    EXPECT_FALSE(URLProcessor::CheckRangeInResponseHeaders(head_, c.first, last + 1, kSize));
    EXPECT_FALSE(URLProcessor::CheckRangeInResponseHeaders(head_, c.first, c.last, kSize + 1));
    EXPECT_EQ(GetTotalPayloadSizeFromHTTPHeaders(head_), std::to_string(kSize));
  }
}

TEST(URLProcessorHeaders, ContentRangeAndHeaderLookupOnRawHeads) {
  const std::string heads =
      "HTTP/1.1 100 Continue\r\n\r\n"
      "HTTP/1.1 302 Found\r\nLocation: http://a/\r\nX-Id: first\r\n\r\n"
      "HTTP/1.1 206 Partial Content\r\ncontent-range:  bytes 10-19/*\r\nX-Id: second \r\n"
      "Content-Length: 10\r\n\r\n";
  EXPECT_EQ(GetValueFromHTTPHeaders(heads, "X-ID", false), "first");
  EXPECT_EQ(GetValueFromHTTPHeaders(heads, "X-ID", true), "second");
  EXPECT_EQ(GetValueFromHTTPHeaders(heads, "X-I", true), "");
  EXPECT_EQ(GetValueFromHTTPHeaders(heads, "Missing", true), "");
  // An unknown total: the range itself still checks, a demanded total does not.
  EXPECT_TRUE(URLProcessor::CheckRangeInResponseHeaders(heads, 10, 19, boost::none));
  EXPECT_FALSE(URLProcessor::CheckRangeInResponseHeaders(heads, 10, 19, 20));
  EXPECT_EQ(GetTotalPayloadSizeFromHTTPHeaders(heads), "10");
  for (const char* bad : {"Content-Range: bytes 5-4/9\r\n", "Content-Range: items 0-1/2\r\n",
                          "Content-Range: bytes x-1/2\r\n", "Content-Range: bytes 0-1\r\n"}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(URLProcessor::CheckRangeInResponseHeaders(bad, 0, boost::none, boost::none));
  }
  EXPECT_FALSE(URLProcessor::CheckRangeInResponseHeaders("HTTP/1.1 200 OK\r\n\r\n", 0, boost::none,
                                                         boost::none));
}

TEST_F(URLProcessorTest, GzipAnswersAreDecodedWhenAskedFor) {
  const std::string plain(50000, 'z');
  server_.Handle("GET", "/gz", [&](const HttpRequest& request) {
    return request.Header("Accept-Encoding").find("gzip") != std::string::npos
               ? HttpResponse::Gzipped(200, plain)
               : HttpResponse::Status(200, plain);
  });
  std::string without;
  EXPECT_EQ(Exchange(Make("GET", "/gz"), &without), Result::OK);
  EXPECT_FALSE(server_.Requests().back().HasHeader("Accept-Encoding"));
  http_->SetCompression(true);
  std::string with;
  EXPECT_EQ(Exchange(Make("GET", "/gz"), &with), Result::OK);
  EXPECT_EQ(with, plain);
  EXPECT_EQ(GetValueFromHTTPHeaders(head_, "Content-Encoding", true), "gzip");
  EXPECT_EQ(without, plain);
}

TEST_F(URLProcessorTest, UserAgentAndHttpVersionSettingsReachTheWire) {
  server_.Handle("GET", "/ua", [](const HttpRequest&) { return HttpResponse::Status(200); });
  http_->SetUserAgent(http_->GetUserAgent() + " (gzip)");
  http_->SetHttpVersion(URLProcessor::kHttp11);
  std::string body;
  EXPECT_EQ(Exchange(Make("GET", "/ua"), &body), Result::OK);
  EXPECT_EQ(server_.Requests().back().Header("User-Agent"), "corvane/1.0 (gzip)");
  EXPECT_EQ(head_.substr(0, 9), "HTTP/1.1 ");
}

TEST_F(URLProcessorTest, BodyCutShortOrResetFailsTheTransferButNotTheNetwork) {
  server_.Handle("GET", "/cut", [](const HttpRequest&) {
    HttpResponse response = HttpResponse::Status(200);
    response.generated_size = 1000000;
    response.cut_after = 300000;
    return response;
  });
  server_.Handle("GET", "/reset", [](const HttpRequest&) {
    HttpResponse response;
    response.reset = true;
    return response;
  });
  std::string body;
  StreamResult read = StreamResult::OK;
  EXPECT_EQ(Exchange(Make("GET", "/cut"), &body, &read), Result::TRANSFER_FAILED);
  EXPECT_EQ(read, StreamResult::FAILED);
  EXPECT_EQ(body, emulators::PatternString(0, 300000));
  EXPECT_EQ(Exchange(Make("GET", "/reset"), &body), Result::NETWORK_FAILED);
  EXPECT_TRUE(URLProcessor::IsNetworkError(http_->GetLastResult()));
  // The processor goes on after a broken connection.
  server_.Handle("GET", "/ok", [](const HttpRequest&) { return HttpResponse::Status(200, "k"); });
  body.clear();
  EXPECT_EQ(Exchange(Make("GET", "/ok"), &body), Result::OK);
  EXPECT_EQ(body, "k");
}

TEST_F(URLProcessorTest, ConnectionRefusedAndTimeOutAreNetworkFailures) {
  int port = 0;
  {
    emulators::HttpServer gone;
    port = gone.Port();
  }
  URLProcessor::Request request;
  request.url = DispatcherUrl::FromString("http://127.0.0.1:" + std::to_string(port) + "/x");
  std::string body;
  EXPECT_FALSE(http_->Send(request));
  EXPECT_EQ(http_->Finish(), Result::NETWORK_FAILED);
  EXPECT_EQ(http_->GetResponseCode(), 0);

  server_.Handle("GET", "/slow", [](const HttpRequest&) {
    HttpResponse response = HttpResponse::Status(200);
    response.delay_ms = 5000;
    return response;
  });
  http_->SetTimeoutSec(1);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Exchange(Make("GET", "/slow"), &body), Result::NETWORK_FAILED);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST_F(URLProcessorTest, FinishBeforeTheBodyIsReadKeepsTheAnswersResult) {
  server_.Handle("MKCOL", "/d", [](const HttpRequest&) {
    return HttpResponse::Status(201, std::string(20000, 'x'));
  });
  server_.Handle("GET", "/big", [](const HttpRequest&) {
    HttpResponse response = HttpResponse::Status(200);
    response.generated_size = 64 * 1024 * 1024;
    return response;
  });
  ASSERT_TRUE(http_->Send(Make("MKCOL", "/d")));
  std::uint8_t block[4096];
  std::uint32_t done = 0;
  EXPECT_EQ(http_->GetInputStream()->Read(block, sizeof(block), &done), StreamResult::OK);
  EXPECT_EQ(http_->Finish(), Result::CREATED);
  // A large unread rest is not downloaded in vain: the connection is dropped instead.
  ASSERT_TRUE(http_->Send(Make("GET", "/big")));
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(http_->Finish(), Result::OK);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(http_->GetLastResult(), Result::OK);
}

TEST_F(URLProcessorTest, SmallUploadIsStreamedInBlocks) {
  server_.Handle("PUT", "/up", [](const HttpRequest& request) {
    return HttpResponse::Status(201, request.body);
  });
  const std::string data = emulators::PatternString(0, 10000);
  URLProcessor::Request request = Make("PUT", "/up");
  request.headers = {"Content-Range: bytes 0-9999/10000"};
  request.content_type = "application/octet-stream";
  ASSERT_TRUE(http_->BeginUpload(request, data.size()));
  auto* bytes = reinterpret_cast<const std::uint8_t*>(data.data());
  EXPECT_EQ(http_->GetOutputStream()->Write(bytes, 3000), StreamResult::OK);
  EXPECT_EQ(http_->GetOutputStream()->Write(bytes + 3000, 0), StreamResult::OK);
  EXPECT_EQ(http_->GetOutputStream()->Write(bytes + 3000, 7000), StreamResult::END);
  std::string echoed;
  EXPECT_EQ(http_->GetInputStream()->ReadAllTo(&echoed, 4096), StreamResult::END);
  EXPECT_EQ(http_->Finish(), Result::CREATED);
  EXPECT_EQ(echoed, data);
  HttpRequest seen = server_.Requests().back();
  EXPECT_EQ(seen.Header("Content-Length"), "10000");
  EXPECT_EQ(seen.Header("Content-Range"), "bytes 0-9999/10000");
  EXPECT_EQ(seen.Header("Content-Type"), "application/octet-stream");
  EXPECT_FALSE(seen.HasHeader("Expect"));

  // More than announced is refused without reaching the wire.
  ASSERT_TRUE(http_->BeginUpload(request, 10));
  EXPECT_EQ(http_->GetOutputStream()->Write(bytes, 11), StreamResult::FAILED);
  EXPECT_EQ(http_->Finish(), Result::TRANSFER_FAILED);
}

TEST_F(URLProcessorTest, EarlyAnswerDuringAnUploadFailsTheWriteAndTellsTheCode) {
  struct Case {
    int status;
    bool expect_continue;  // else the body goes at once and the answer comes while it flows
    Result expected;
  };
  // A success that came before the body went out stored nothing the client sent.
  const Case cases[] = {{413, true, Result::HTTP_FAILED},
                        {503, true, Result::HTTP_FAILED},
                        {201, true, Result::TRANSFER_FAILED},
                        {200, false, Result::TRANSFER_FAILED},
                        {403, false, Result::FORBIDDEN}};
  constexpr std::uint64_t kLength = 64 * 1024 * 1024;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.status);
    server_.Handle(
        "PUT", "/early",
        [&](const HttpRequest&) { return HttpResponse::Status(c.status, "{\"why\":\"early\"}"); },
        Match::kExact, BodyMode::kAnswerFirst);
    URLProcessor::Request request = Make("PUT", "/early");
    if (!c.expect_continue) {
      request.headers = {"Expect:"};
    }
    ASSERT_TRUE(http_->BeginUpload(request, kLength));
    std::vector<std::uint8_t> block(256 * 1024, 7);
    StreamResult written = StreamResult::OK;
    std::uint64_t sent = 0;
    while (written == StreamResult::OK && sent < kLength) {
      written = http_->GetOutputStream()->Write(block.data(), block.size());
      sent += block.size();
    }
    EXPECT_EQ(written, StreamResult::FAILED);
    EXPECT_LT(sent, kLength);
    EXPECT_EQ(http_->GetResponseCode(), c.status);
    std::string body;
    http_->GetInputStream()->ReadAllTo(&body, 4096);
    EXPECT_EQ(body, "{\"why\":\"early\"}");
    LoggerWrapper::Capture log;
    EXPECT_EQ(http_->Finish(), c.expected);
    EXPECT_EQ(log.Contains("bytes of the upload were sent; the upload failed: "),
              c.expected == Result::TRANSFER_FAILED);
    EXPECT_EQ(server_.Requests().back().Header("Expect"), c.expect_continue ? "100-continue" : "");
  }
}

TEST_F(URLProcessorTest, LargeStreamsRoundTripByteExactWithBoundedMemory) {
  constexpr std::uint64_t kSize = 256ull * 1024 * 1024;
  server_.Handle(
      "PUT", "/big",
      [](const HttpRequest& request) { return HttpResponse::Status(201, request.body_sha256); },
      Match::kExact, BodyMode::kHashOnly);
  server_.Handle("GET", "/big", [&](const HttpRequest&) {
    HttpResponse response = HttpResponse::Status(200);
    response.generated_size = kSize;
    return response;
  });
  // Upload: the blocks are made as they go, so neither side holds the file.
  URLProcessor::Request put = Make("PUT", "/big");
  ASSERT_TRUE(http_->BeginUpload(put, kSize));
  emulators::Sha256 sent_hash;
  std::vector<std::uint8_t> block(1024 * 1024);
  StreamResult written = StreamResult::OK;
  for (std::uint64_t offset = 0; offset < kSize && written == StreamResult::OK;
       offset += block.size()) {
    emulators::PatternBytes(offset, block.data(), block.size());
    sent_hash.Update(block.data(), block.size());
    written = http_->GetOutputStream()->Write(block.data(), block.size());
  }
  EXPECT_EQ(written, StreamResult::END);
  std::string server_hash;
  EXPECT_EQ(http_->GetInputStream()->ReadAllTo(&server_hash, 4096), StreamResult::END);
  EXPECT_EQ(http_->Finish(), Result::CREATED);
  std::string expected_hash = sent_hash.HexDigest();
  EXPECT_EQ(server_hash, expected_hash);
  EXPECT_EQ(server_.Requests().back().body_size, kSize);

  // Download: read slower than the server sends; at most the buffer waits in memory.
  ASSERT_TRUE(http_->Send(Make("GET", "/big")));
  emulators::Sha256 received_hash;
  std::uint64_t received = 0;
  StreamResult read = StreamResult::OK;
  while (read == StreamResult::OK) {
    std::uint32_t done = 0;
    read = http_->GetInputStream()->Read(block.data(), static_cast<std::uint32_t>(block.size()),
                                         &done);
    EXPECT_LE(done, block.size());
    received_hash.Update(block.data(), done);
    received += done;
  }
  EXPECT_EQ(read, StreamResult::END);
  EXPECT_EQ(http_->Finish(), Result::OK);
  EXPECT_EQ(received, kSize);
  EXPECT_EQ(received_hash.HexDigest(), expected_hash);
}

TEST_F(URLProcessorTest, OAuthTokenIsSentOnlyWhenAuthorizingAndNeverLogged) {
  const std::string token = "ya29.secret-token-value";
  auto authorized =
      std::make_shared<CurlURLProcessor>(std::make_shared<core::cookie::CookieOAuth>(token));
  ASSERT_TRUE(authorized->Open(nullptr));
  server_.Handle("GET", "/me", [](const HttpRequest&) { return HttpResponse::Status(401); });
  LoggerWrapper::Capture capture;
  URLProcessor::Request request = Make("GET", "/me");
  std::string body;
  ASSERT_TRUE(authorized->Send(request));
  authorized->Finish();
  request.authorize = false;
  ASSERT_TRUE(authorized->Send(request));
  authorized->Finish();
  // A refused connection logs its failure; the token stays out of it as well.
  request.url = DispatcherUrl::FromString("http://127.0.0.1:1/me");
  request.authorize = true;
  EXPECT_FALSE(authorized->Send(request));
  EXPECT_EQ(authorized->Finish(), Result::NETWORK_FAILED);

  auto requests = server_.Requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].Header("Authorization"), "Bearer " + token);
  EXPECT_FALSE(requests[1].HasHeader("Authorization"));
  EXPECT_FALSE(capture.Lines().empty());
  for (const std::string& line : capture.Lines()) {
    EXPECT_EQ(line.find("secret-token"), std::string::npos) << line;
  }
}

TEST_F(URLProcessorTest, WebDAVAccountUsesBasicAuthentication) {
  auto dav = std::make_shared<CurlURLProcessor>(
      std::make_shared<core::cookie::CookieWebDAVBase>("http://x", "anna", "p@ss:w"));
  server_.Handle("PROPFIND", "/", [](const HttpRequest&) { return HttpResponse::Status(207); });
  URLProcessor::Request request = Make("PROPFIND", "/");
  ASSERT_TRUE(dav->Send(request));
  EXPECT_EQ(dav->Finish(), Result::MULTI_STATUS);
  // base64("anna:p@ss:w")
  EXPECT_EQ(server_.Requests().back().Header("Authorization"), "Basic YW5uYTpwQHNzOnc=");
  EXPECT_EQ(dav->GetAuthorization().get() != nullptr, true);
}

TEST_F(URLProcessorTest, GetJSONAndResultParsesTheAnswer) {
  server_.Handle("GET", "/json", [](const HttpRequest& request) {
    return HttpResponse::Status(200, "{\"user\":{\"name\":\"" + request.Header("X-Name") + "\"}}");
  });
  server_.Handle("GET", "/text",
                 [](const HttpRequest&) { return HttpResponse::Status(500, "<html>oops"); });
  auto [tree, result] = http_->GetJSONAndResult(
      DispatcherUrl::FromString(server_.BaseUrl() + "/json"), {"X-Name: Zoë"});
  EXPECT_EQ(result, Result::OK);
  ASSERT_NE(tree, nullptr);
  EXPECT_EQ(tree->get<std::string>("user.name"), "Zoë");
  auto [bad, failed] =
      http_->GetJSONAndResult(DispatcherUrl::FromString(server_.BaseUrl() + "/text"), {});
  EXPECT_EQ(failed, Result::HTTP_FAILED);
  EXPECT_EQ(bad, nullptr);
}

}  // namespace

namespace hostile {

HttpResponse RedirectTo(const std::string& location) {
  HttpResponse response = HttpResponse::Status(301);
  response.headers = {{"Location", location}};
  return response;
}

HttpResponse CutAfter(std::string body, std::uint64_t cut) {
  HttpResponse response = HttpResponse::Status(200, std::move(body));
  response.cut_after = cut;
  return response;
}

HttpResponse Generated(std::uint64_t size) {
  HttpResponse response = HttpResponse::Status(200);
  response.generated_size = size;
  return response;
}

}  // namespace hostile

TEST_F(URLProcessorTest, AnswersThatCannotBeTrustedFailTheRequest) {
  struct Case {
    const char* name;
    HttpResponse answer;
    bool json;  // read through GetJSONAndResult, else as a plain body
    Result expected;
    const char* log;
  };
  const Case cases[] = {
      {"gzip nobody asked for", HttpResponse::Gzipped(200, std::string(5000, 'g')), false,
       Result::TRANSFER_FAILED, "Content-Encoding that was not asked for; refused: "},
      {"redirect to itself", hostile::RedirectTo("/loop"), false, Result::HTTP_FAILED,
       "Number of redirects hit maximum"},
      {"JSON page cut where it still parses",
       hostile::CutAfter("{\"a\":1}" + std::string(99, ' '), 7), true, Result::TRANSFER_FAILED,
       "failed: "},
      {"JSON page past its cap", hostile::Generated(64 * 1024 * 1024), true,
       Result::TRANSFER_FAILED, "Answer larger than 16777216 bytes; refused."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    server_.ClearRequests();
    server_.Handle("GET", "/loop", [&c](const HttpRequest&) { return c.answer; });
    LoggerWrapper::Capture log;
    Result result = Result::OK;
    if (c.json) {
      std::unique_ptr<utils::json::json_tree> tree;
      std::tie(tree, result) =
          http_->GetJSONAndResult(DispatcherUrl::FromString(server_.BaseUrl() + "/loop"), {});
      EXPECT_EQ(tree, nullptr);
    } else {
      std::string body;
      StreamResult read = StreamResult::FAILED;  // stays so when no answer's head came
      result = Exchange(Make("GET", "/loop"), &body, &read);
      EXPECT_NE(read, StreamResult::END);
      EXPECT_EQ(body.find('g'), std::string::npos) << "compressed bytes passed as content";
    }
    EXPECT_EQ(result, c.expected);
    EXPECT_TRUE(log.Contains(c.log));
  }
  // A handful of redirects, then the loop is broken off.
  EXPECT_EQ(server_.Requests().size(), 1u);
  server_.ClearRequests();
  server_.Handle("GET", "/loop", [](const HttpRequest&) { return hostile::RedirectTo("/loop"); });
  std::string body;
  EXPECT_EQ(Exchange(Make("GET", "/loop"), &body), Result::HTTP_FAILED);
  EXPECT_EQ(http_->GetResponseCode(), 301);
  EXPECT_EQ(server_.Requests().size(),
            static_cast<std::size_t>(CurlURLProcessor::kMaxRedirects + 1));
}

TEST_F(URLProcessorTest, ARedirectToAnotherHostCarriesNoCredentials) {
  emulators::HttpServer storage;
  storage.Handle("GET", "/blob", [](const HttpRequest&) { return HttpResponse::Status(200, "x"); });
  // The same machine under another name is another host to the client.
  const std::string elsewhere = "http://localhost:" + std::to_string(storage.Port()) + "/blob";
  server_.Handle("GET", "/file",
                 [&](const HttpRequest&) { return hostile::RedirectTo(elsewhere); });
  const std::shared_ptr<const core::cookie::Cookie> accounts[] = {
      std::make_shared<core::cookie::CookieOAuth>("token-1"),
      std::make_shared<core::cookie::CookieWebDAVBase>("http://x", "anna", "pw")};
  for (const auto& account : accounts) {
    auto http = std::make_shared<CurlURLProcessor>(account);
    ASSERT_TRUE(http->Open(nullptr));
    ASSERT_TRUE(http->Send(Make("GET", "/file")));
    std::string body;
    http->GetInputStream()->ReadAllTo(&body, 4096);
    EXPECT_EQ(http->Finish(), Result::OK);
    EXPECT_EQ(body, "x");
    EXPECT_TRUE(server_.Requests().back().HasHeader("Authorization"));
    EXPECT_FALSE(storage.Requests().back().HasHeader("Authorization"));
  }
}
