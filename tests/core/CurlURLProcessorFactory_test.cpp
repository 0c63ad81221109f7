#include <gtest/gtest.h>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "core/LoggerWrapper.h"
#include "emulators/HttpServer.h"

namespace {

using emulators::HttpRequest;
using emulators::HttpResponse;

TEST(CurlURLProcessorFactory, EveryProcessorCarriesTheAccountAndNoTokenIsLogged) {
  const std::string token = "sl.AbCdEf-very-secret";
  auto cookie = std::make_shared<core::cookie::CookieOAuth>(token);
  CurlURLProcessorFactory factory(cookie);
  emulators::HttpServer server;
  server.Handle("POST", "/2/files/list_folder", [](const HttpRequest&) {
    HttpResponse response = HttpResponse::Status(409, "{\"error_summary\":\"path/not_found/\"}");
    response.cut_after = 5;
    return response;
  });
  Endpoints::Override(Endpoints::kDropboxApi, server.BaseUrl() + "/");
  LoggerWrapper::Capture capture;
  for (int i = 0; i < 2; ++i) {
    std::shared_ptr<URLProcessor> http = factory.Create();
    ASSERT_NE(http, nullptr);
    EXPECT_EQ(http->GetAuthorization(), cookie);
    ASSERT_TRUE(http->Open(nullptr));
    URLProcessor::Request request;
    request.verb = "POST";
    request.url =
        DispatcherUrl::FromString(Endpoints::Get(Endpoints::kDropboxApi) + "/2/files/list_folder");
    request.body = "{\"path\":\"\"}";
    request.content_type = "application/json";
    ASSERT_TRUE(http->Send(request));
    std::string body;
    EXPECT_EQ(http->GetInputStream()->ReadAllTo(&body, 4096), StreamResult::FAILED);
    EXPECT_EQ(http->Finish(), URLProcessor::Result::TRANSFER_FAILED);
  }
  Endpoints::ResetOverrides();
  auto requests = server.Requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const HttpRequest& request : requests) {
    EXPECT_EQ(request.Header("Authorization"), "Bearer " + token);
  }
  EXPECT_TRUE(capture.Contains("/2/files/list_folder"));
  for (const std::string& line : capture.Lines()) {
    EXPECT_EQ(line.find("very-secret"), std::string::npos) << line;
  }
}

TEST(CurlURLProcessorFactory, TheTokenGoesWithTheServicesScheme) {
  emulators::HttpServer server;
  server.Handle("GET", "/v1/disk", [](const HttpRequest&) { return HttpResponse::Status(200); });
  for (const char* scheme :
       {core::cookie::CookieOAuth::kBearer, core::cookie::CookieOAuth::kYandexScheme}) {
    CurlURLProcessorFactory factory(std::make_shared<core::cookie::CookieOAuth>("t0k", scheme));
    std::shared_ptr<URLProcessor> http = factory.Create();
    ASSERT_TRUE(http->Open(nullptr));
    URLProcessor::Request request;
    request.url = DispatcherUrl::FromString(server.BaseUrl() + "/v1/disk");
    ASSERT_TRUE(http->Send(request));
    EXPECT_EQ(http->Finish(), URLProcessor::Result::OK);
    EXPECT_EQ(server.Requests().back().Header("Authorization"), std::string(scheme) + " t0k");
  }
}

TEST(Endpoints, PublicHostsByDefaultAndOverridesPerName) {
  EXPECT_EQ(Endpoints::Get(Endpoints::kGoogleDrive), "https://www.googleapis.com");
  EXPECT_EQ(Endpoints::Get(Endpoints::kDropboxContent), "https://content.dropboxapi.com");
  EXPECT_EQ(Endpoints::Get(Endpoints::kMicrosoftGraph), "https://graph.microsoft.com/v1.0");
  EXPECT_EQ(Endpoints::Get(Endpoints::kBoxUpload), "https://upload.box.com/api");
  EXPECT_EQ(Endpoints::Get("no.such.service"), "");
  Endpoints::Override(Endpoints::kBoxApi, "http://127.0.0.1:9/");
  EXPECT_EQ(Endpoints::Get(Endpoints::kBoxApi), "http://127.0.0.1:9");
  EXPECT_EQ(Endpoints::Get(Endpoints::kBoxUpload), "https://upload.box.com/api");
  Endpoints::ResetOverrides();
  EXPECT_EQ(Endpoints::Get(Endpoints::kBoxApi), "https://api.box.com");
}

}  // namespace
