// The transport against real WebDAV servers of the system.
#include <gtest/gtest.h>

#include <fstream>

#include "core/Cookie.h"
#include "core/CurlURLProcessor.h"
#include "emulators/HttpServer.h"
#include "support/DavServer.h"

namespace {

using Result = URLProcessor::Result;

class URLProcessorDavTest : public ::testing::TestWithParam<test::DavServerKind> {};

TEST_P(URLProcessorDavTest, PutGetPropfindMkcolRoundTrips) {
  test::DavServer dav(GetParam(), "anna", "s3cret");
  ASSERT_TRUE(dav.Start()) << dav.Error();
  CurlURLProcessor http(
      std::make_shared<core::cookie::CookieWebDAVBase>(dav.BaseUrl(), "anna", "s3cret"));
  std::string head;
  ASSERT_TRUE(http.Open(&head));
  auto request = [&](const std::string& verb, const std::string& path) {
    URLProcessor::Request r;
    r.verb = verb;
    r.url = DispatcherUrl::FromString(dav.BaseUrl());
    r.url.Append(path, DispatcherUrl::ValueEncodingMode::kPath);
    return r;
  };
  auto exchange = [&](const URLProcessor::Request& r, std::string* body) {
    body->clear();
    if (http.Send(r)) {
      http.GetInputStream()->ReadAllTo(body, 4096);
    }
    return http.Finish();
  };
  std::string body;

  // 1. A folder with a blank in its name.
  EXPECT_EQ(exchange(request("MKCOL", "/new folder/"), &body), Result::CREATED);
  EXPECT_TRUE(std::filesystem::is_directory(dav.Root() / "new folder"));

  // 2. A streamed PUT of 3 MiB (past the "Expect: 100-continue" size) and its GET.
  constexpr std::size_t kSize = 3 * 1024 * 1024 + 17;
  const std::string data = emulators::PatternString(0, kSize);
  ASSERT_TRUE(http.BeginUpload(request("PUT", "/new folder/f#1.bin"), kSize));
  StreamResult written = StreamResult::OK;
  for (std::size_t offset = 0; offset < kSize && written == StreamResult::OK; offset += 65536) {
    written = http.GetOutputStream()->Write(
        reinterpret_cast<const std::uint8_t*>(data.data()) + offset,
        static_cast<std::uint32_t>(std::min<std::size_t>(65536, kSize - offset)));
  }
  EXPECT_EQ(written, StreamResult::END);
  Result put = http.Finish();
  EXPECT_TRUE(put == Result::CREATED || put == Result::NO_CONTENT) << put;
  EXPECT_EQ(std::filesystem::file_size(dav.Root() / "new folder" / "f#1.bin"), kSize);
  EXPECT_EQ(exchange(request("GET", "/new folder/f#1.bin"), &body), Result::OK);
  EXPECT_TRUE(body == data);

  // 3. A range of it.
  URLProcessor::Request ranged = request("GET", "/new folder/f#1.bin");
  ranged.range = URLProcessor::Range{1000, 1999};
  EXPECT_EQ(exchange(ranged, &body), Result::PARTIAL_CONTENT);
  EXPECT_EQ(body, data.substr(1000, 1000));
  EXPECT_TRUE(URLProcessor::CheckRangeInResponseHeaders(head, 1000, 1999, kSize));

  // 4. The listing names the file.
  URLProcessor::Request propfind = request("PROPFIND", "/new folder/");
  propfind.headers = {"Depth: 1"};
  propfind.body = "<?xml version=\"1.0\"?><D:propfind xmlns:D=\"DAV:\"><D:allprop/></D:propfind>";
  propfind.content_type = "application/xml";
  EXPECT_EQ(exchange(propfind, &body), Result::MULTI_STATUS);
  EXPECT_NE(body.find("f%231.bin"), std::string::npos) << body;

  // 5. MKCOL of an existing folder is refused with 405 (rclone accepts it again), and so is a
  //    request without credentials, with 401.
  Result again = exchange(request("MKCOL", "/new folder/"), &body);
  if (GetParam() == test::DavServerKind::kRclone) {
    EXPECT_EQ(again, Result::CREATED);
  } else {
    EXPECT_EQ(again, Result::HTTP_FAILED);
    EXPECT_EQ(http.GetResponseCode(), 405);
  }
  URLProcessor::Request anonymous = request("GET", "/new folder/f#1.bin");
  anonymous.authorize = false;
  EXPECT_EQ(exchange(anonymous, &body), Result::HTTP_FAILED);
  EXPECT_EQ(http.GetResponseCode(), 401);
}

INSTANTIATE_TEST_SUITE_P(Servers, URLProcessorDavTest,
                         ::testing::Values(test::DavServerKind::kApache,
                                           test::DavServerKind::kLighttpd,
                                           test::DavServerKind::kRclone),
                         [](const auto& info) {
                           return std::string(test::DavServer::Name(info.param));
                         });

}  // namespace
