#include "core/Xml.h"

#include <gtest/gtest.h>

#include "core/InputStream.h"

namespace {

using utils::xml::xml_tree;

const char kMultistatus[] =
    R"(<?xml version="1.0" encoding="utf-8"?>
<d:multistatus xmlns:d="DAV:"><d:response><d:href>/a%20b/</d:href>
<d:propstat><d:prop><d:getetag>"e1"</d:getetag></d:prop></d:propstat></d:response>
<!-- a comment with <tags> -->
<d:response><d:href><![CDATA[/x<y]]></d:href></d:response></d:multistatus>)";

TEST(XmlTest, ParsesAndDropsNamespacePrefixes) {
  xml_tree tree;
  std::string error;
  MemoryInputStream stream(kMultistatus, 7);
  ASSERT_TRUE(utils::xml::ReadAndParse(&stream, &tree, &error)) << error;
  utils::xml::RemoveNamespaces(&tree);

  const xml_tree& multistatus = tree.get_child("multistatus");
  EXPECT_EQ(multistatus.get<std::string>("<xmlattr>.xmlns:d"), "DAV:");
  std::vector<std::string> hrefs;
  for (const auto& [key, child] : multistatus) {
    if (key == "response") {
      hrefs.push_back(child.get<std::string>("href"));
    }
  }
  EXPECT_EQ(hrefs, (std::vector<std::string>{"/a%20b/", "/x<y"}));
  EXPECT_EQ(multistatus.get<std::string>("response.propstat.prop.getetag"), "\"e1\"");
}

TEST(XmlTest, MalformedInputAnswersFalse) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) {
    deep += "<a>";
  }
  const std::string cases[] = {
      "",
      "<a>",
      "<a></b>",
      "<a><b>x</b",
      "<a x=\"1></a>",
      "<a><b></a></b>",
      "<!-- only a comment -->",
      "text only",
      deep,
  };
  for (const std::string& text : cases) {
    xml_tree tree;
    std::string error;
    EXPECT_FALSE(utils::xml::Parse(text, &tree, &error)) << text.substr(0, 40);
    EXPECT_FALSE(error.empty());
  }
}

TEST(XmlTest, NestingLimitCountsOnlyElements) {
  // Self-closed elements, quoted ">" and comments are no nesting.
  std::string flat = "<r>";
  for (int i = 0; i < 2000; ++i) {
    flat += "<e a=\"x>y\"/><!-- <c> -->";
  }
  flat += "</r>";
  xml_tree tree;
  std::string error;
  EXPECT_TRUE(utils::xml::Parse(flat, &tree, &error)) << error;
  EXPECT_EQ(tree.get_child("r").size(), 2000u);

  MemoryInputStream failing(kMultistatus, 4096, 20);
  EXPECT_FALSE(utils::xml::ReadAndParse(&failing, &tree, &error));
  EXPECT_EQ(error, "Failed to read the body: FAILED");
}

}  // namespace
