// One HTTP exchange with curl's easy interface, apart from the library's transport: what a test
// uses to look at a server (an emulator) as any client would.
//
//   test::Answer answer = test::Fetch("GET", base + "/api/list", "Bearer t");
//   EXPECT_EQ(answer.status, 200);
#pragma once

#include <curl/curl.h>

#include <string>

namespace test {

struct Answer {
  long status = 0;  // 0 when no answer came
  std::string body;
  std::string headers;
  CURLcode code = CURLE_OK;

  // The value of the first header of that name, any case; empty when there is none.
  std::string Header(const std::string& name) const;
};

// `token` is the whole value of "Authorization" (none when empty), `range` that of "Range",
// `header` more lines ("Name: value", several separated by "\n").
Answer Fetch(const std::string& verb, const std::string& url, const std::string& token,
             const std::string& body = std::string(), const std::string& range = std::string(),
             const std::string& header = std::string());

}  // namespace test
