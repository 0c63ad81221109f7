#include <gtest/gtest.h>

#include "core/DispatcherUrl.h"
#include "core/PercentEncoding.h"

namespace {

TEST(PercentEncoding, EncodesAllButUnreservedAndDecodesBack) {
  struct Case {
    std::string plain;
    bool keep_slash;
    std::string encoded;
  };
  const Case cases[] = {
      {"AZaz09-._~", false, "AZaz09-._~"},
      {"/a b/c#1", true, "/a%20b/c%231"},
      {"/a b/c#1", false, "%2Fa%20b%2Fc%231"},
      {"100%+?&=", false, "100%25%2B%3F%26%3D"},
      {"\xC3\xA9\xFF", false, "%C3%A9%FF"},
      {std::string("a\0b", 3), false, "a%00b"},
      {"", true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.encoded);
    EXPECT_EQ(utils::PercentEncoded(c.plain, c.keep_slash), c.encoded);
    EXPECT_EQ(utils::PercentDecoded(c.encoded), c.plain);
    std::string appended = "x";
    utils::PercentEncode(c.plain, &appended, c.keep_slash);
    EXPECT_EQ(appended, "x" + c.encoded);
  }
  // Broken escapes are kept; lower-case hex is read.
  EXPECT_EQ(utils::PercentDecoded("%zz%4%e9%2f+"), "%zz%4\xE9/+");
}

TEST(DispatcherUrl, BuildsPathAndQueryInEachMode) {
  using Mode = DispatcherUrl::ValueEncodingMode;
  DispatcherUrl url = DispatcherUrl::FromString("https://h.example/api?alt=json");
  EXPECT_FALSE(url.IsEmpty());
  url.Append("/dir name/", Mode::kPath)
      .Append("a/b#c", Mode::kSegment)
      .Append("%41", Mode::kAsIs)
      .AppendParam("q", "name = 'x&y'", Mode::kQueryValue)
      .AppendParam("raw", "a%2Cb", Mode::kAsIs);
  EXPECT_EQ(url.Url(),
            "https://h.example/api/dir%20name/a%2Fb%23c%41?alt=json&q=name%20%3D%20%27x%26y%27"
            "&raw=a%2Cb");
  DispatcherUrl copy = url;
  copy.AppendParam("n", "1", Mode::kAsIs);
  EXPECT_EQ(copy.Url(), url.Url() + "&n=1");
  EXPECT_TRUE(DispatcherUrl().IsEmpty());
  EXPECT_EQ(DispatcherUrl().AppendParam("k", "v", Mode::kAsIs).Url(), "?k=v");
}

}  // namespace
