// The emulator host as every dialect sees it: the token check, fault rules given in C++ and over
// the control path, foreign changes and the account dump. A small dialect of the test's own
// stands for a service here; each service's dialect has its own suite.
#include "emulators/Emulator.h"
#include "support/Fetch.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>
#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace {

using emulators::Emulator;
using emulators::HttpRequest;
using emulators::HttpResponse;

// Lists a folder as {"items":[{"id":..,"name":..}],"cursor":N}; errors as {"error":{"code":..}}.
class ListingDialect : public emulators::Dialect {
 public:
  const char* Service() const override { return "listing"; }
  emulators::HostList Hosts() const override {
    return {{"listing.api", "/api"}, {"listing.upload", "/up"}};
  }
  std::string AuthScheme() const override { return "OAuth"; }
  HttpResponse Error(int status, const std::string& code) const override {
    return emulators::JsonResponse(
        status, QJsonObject{{"error", QJsonObject{{"code", code.empty() ? "default" : code.c_str()},
                                                  {"status", status}}}});
  }
  void Install(emulators::Router& router) override {
    router.Handle("GET", "/api/list", [&router](const HttpRequest& request) {
      emulators::CloudAccount& account = router.account();
      QJsonArray items;
      std::string folder = emulators::QueryParam(request.query, "folder");
      for (const emulators::Item& item : account.Children(folder.empty() ? "root" : folder)) {
        items.append(QJsonObject{{"id", item.id.c_str()}, {"name", item.name.c_str()}});
      }
      return emulators::JsonResponse(
          200, QJsonObject{{"items", items}, {"cursor", static_cast<double>(account.Sequence())}});
    });
    router.Handle(
        "GET", "/up/",
        [&router](const HttpRequest& request) {
          std::optional<emulators::Item> item = router.account().FindByPath(request.path.substr(4));
          return item ? emulators::ContentResponse(*item, request.Header("Range"))
                      : HttpResponse::Status(404);
        },
        emulators::RouteOptions{emulators::Match::kPrefix, emulators::BodyMode::kStore, nullptr,
                                false});
  }
};

using test::Answer;
using test::Fetch;

QJsonObject Object(const std::string& body) {
  return QJsonDocument::fromJson(QByteArray::fromStdString(body)).object();
}

class EmulatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    emulator_ = Emulator::Start(std::make_unique<ListingDialect>(), 0, &error);
    ASSERT_TRUE(emulator_) << error;
    base_ = emulator_->BaseUrl();
    ASSERT_EQ(emulator_->account().CreateFile("root", "a.txt", "0123456789", 0, nullptr),
              emulators::AccountError::kNone);
  }
  Answer List(const std::string& token = "OAuth t") {
    return Fetch("GET", base_ + "/api/list", token);
  }

  std::unique_ptr<Emulator> emulator_;
  std::string base_;
};

TEST_F(EmulatorTest, TheTokenIsCheckedWithTheServicesScheme) {
  struct Case {
    const char* header;
    long status;
  } cases[] = {{"OAuth abc", 200},
               {"", 401},
               {"Bearer abc", 401},
               {"OAuth ", 401},
               {"OAuth rejected-token", 401}};
  for (const Case& c : cases) {
    Answer answer = List(c.header);
    EXPECT_EQ(answer.status, c.status) << c.header;
    if (c.status == 401) {
      EXPECT_EQ(Object(answer.body)["error"].toObject()["status"].toInt(), 401) << answer.body;
    }
  }
  // Pre-authorized upload URLs need none.
  EXPECT_EQ(Fetch("GET", base_ + "/up/a.txt", "").status, 200);
}

TEST_F(EmulatorTest, EndpointsNameEveryHostOfTheDialect) {
  emulators::HostList expected = {{"listing.api", base_ + "/api"},
                                  {"listing.upload", base_ + "/up"}};
  EXPECT_EQ(emulator_->Endpoints(), expected);
}

TEST_F(EmulatorTest, RulesTakeTheNthMatchingRequestsForTheirCount) {
  emulator_->faults().Add(emulators::FaultRule::On("GET", "/api/")
                              .Nth(2)
                              .Times(2)
                              .Status(429)
                              .Error("too_many_requests")
                              .RetryAfter(7));

  std::vector<long> statuses;
  for (int i = 0; i < 5; ++i) {
    Answer answer = List();
    statuses.push_back(answer.status);
    if (answer.status == 429) {
      EXPECT_EQ(Object(answer.body)["error"].toObject()["code"].toString(), "too_many_requests");
      EXPECT_NE(answer.headers.find("Retry-After: 7"), std::string::npos) << answer.headers;
    }
  }
  EXPECT_EQ(statuses, (std::vector<long>{200, 429, 429, 200, 200}));
  // Another path or verb is neither taken nor counted.
  EXPECT_EQ(Fetch("GET", base_ + "/up/a.txt", "").status, 200);
  EXPECT_EQ(emulator_->faults().Fired(), 2);
}

// Every member a fault has, so that two faults compare in one line of a failure message.
std::string Members(const std::optional<emulators::Fault>& fault) {
  if (!fault)
    return "none";
  std::string change;
  if (fault->change_after) {
    const emulators::ForeignChange& c = *fault->change_after;
    change = c.op + ":" + c.path + ":" + c.to + ":" + c.content;
  }
  return std::to_string(fault->status) + "/" + fault->error + "/" +
         std::to_string(fault->retry_after_s) + "/" + std::to_string(fault->delay_ms) + "/" +
         std::to_string(fault->cut_after) + "/" + std::to_string(fault->flip_byte) + "/" +
         std::to_string(fault->reset) + "/" + std::to_string(fault->trickle_bytes) + "/" +
         std::to_string(fault->trickle_interval_ms) + "/" + fault->drop_field + "/" +
         std::to_string(fault->persist_limit) + "/" + std::to_string(fault->expire_sessions) + "/" +
         change;
}

// A rule written in C++ and its JSON form, as `corvane emulate` takes it, fault the same requests
// the same way.
TEST(FaultRuleTest, TheBuilderAndTheJsonFormMeanTheSame) {
  using emulators::FaultRule;
  struct Case {
    const char* name;
    FaultRule built;
    const char* json;
  };
  const Case cases[] = {
      {"window", FaultRule::On("PUT", "/a/").Nth(2).Times(2).Status(503).RetryAfter(3),
       R"({"verb":"PUT","path":"/a/","nth":2,"times":2,"status":503,"retry_after":3})"},
      {"every one, late", FaultRule::On().Times(0).Status(429).Error("busy").DelayMs(20),
       R"({"times":0,"status":429,"error":"busy","delay_ms":20})"},
      {"bent body", FaultRule::On().CutAfter(5).FlipByte(2).Reset().Trickle(4, 1),
       R"({"cut_after":5,"flip_byte":2,"reset":true,"trickle_bytes":4,"trickle_interval_ms":1})"},
      {"account",
       FaultRule::On().DropField("id").PersistLimit(100).ExpireSessions().ChangeAfter(
           {"create", "a/b", "", "x"}),
       R"({"drop_field":"id","persist_limit":100,"expire_sessions":true,)"
       R"("change":{"op":"create","path":"a/b","content":"x"}})"},
  };
  for (const Case& c : cases) {
    emulators::FaultBook built;
    built.Add(c.built);
    emulators::FaultBook read;
    std::string error;
    ASSERT_TRUE(read.Add(c.json, &error)) << c.name << ": " << error;
    for (int i = 0; i < 6; ++i) {
      const std::string verb = i % 2 ? "PUT" : "GET";
      EXPECT_EQ(Members(built.Take(verb, "/a/x")), Members(read.Take(verb, "/a/x")))
          << c.name << ", request " << i + 1;
    }
  }
}

TEST_F(EmulatorTest, ControlPathTakesRulesChangesAndSeeds) {
  // 1. A rule as JSON: the next listing loses a field and is followed by a foreign change.
  Answer added = Fetch("POST", base_ + "/_emulator/faults", "",
                       R"({"path":"/api/list","drop_field":"name",)"
                       R"("change":{"op":"create","path":"new/b.txt","content":"bb"}})");
  ASSERT_EQ(added.status, 204) << added.body;
  QJsonObject listing = Object(List().body);
  ASSERT_EQ(listing["items"].toArray().size(), 1);
  EXPECT_FALSE(listing["items"].toArray()[0].toObject().contains("name"));
  EXPECT_EQ(listing["cursor"].toInt(), 1);  // the change came after the answer was made
  EXPECT_TRUE(emulator_->account().FindByPath("new/b.txt"));
  EXPECT_TRUE(Object(List().body)["items"].toArray()[0].toObject().contains("name"));

  // 2. Foreign changes by path.
  EXPECT_EQ(Fetch("POST", base_ + "/_emulator/change", "",
                  R"({"op":"rename","path":"new/b.txt","to":"c.txt"})")
                .status,
            204);
  EXPECT_EQ(Fetch("POST", base_ + "/_emulator/change", "",
                  R"({"op":"move","path":"a.txt",)"
                  R"("to":"new"})")
                .status,
            204);
  Answer missing =
      Fetch("POST", base_ + "/_emulator/change", "", R"({"op":"trash","path":"nothing"})");
  EXPECT_EQ(missing.status, 400);
  EXPECT_NE(missing.body.find("no item at nothing"), std::string::npos);
  EXPECT_EQ(Fetch("POST", base_ + "/_emulator/faults", "", "not json").status, 400);

  // 3. The dump shows the account as it is now, parents first.
  QJsonObject dump = Object(Fetch("GET", base_ + "/_emulator/dump", "").body);
  QJsonArray items = dump["items"].toArray();
  ASSERT_EQ(items.size(), 4);  // the root, "new", and its two files
  EXPECT_EQ(items[0].toObject()["id"].toString(), "root");
  EXPECT_EQ(items[1].toObject()["name"].toString(), "new");
  EXPECT_EQ(emulator_->account().PathOf(emulator_->account().FindByPath("new/a.txt")->id),
            "new/a.txt");
  EXPECT_EQ(dump["used"].toInt(), 12);
}

TEST_F(EmulatorTest, TransportFaultsBendTheAnswer) {
  auto add = [&](const std::string& json) {
    ASSERT_EQ(Fetch("POST", base_ + "/_emulator/faults", "", json).status, 204) << json;
  };
  // A body cut after 3 bytes, a reset after 3 bytes, a reset instead of any answer.
  add(R"({"path":"/up/","cut_after":3})");
  Answer cut = Fetch("GET", base_ + "/up/a.txt", "");
  EXPECT_EQ(cut.body, "012");
  EXPECT_EQ(cut.code, CURLE_PARTIAL_FILE);
  add(R"({"path":"/up/","cut_after":3,"reset":true})");
  EXPECT_NE(Fetch("GET", base_ + "/up/a.txt", "").code, CURLE_OK);
  add(R"({"path":"/up/","reset":true})");
  Answer reset = Fetch("GET", base_ + "/up/a.txt", "");
  EXPECT_EQ(reset.status, 0);
  EXPECT_NE(reset.code, CURLE_OK);
  // A flipped byte, and one past the end that leaves the body alone.
  add(R"({"path":"/up/","flip_byte":1})");
  EXPECT_EQ(Fetch("GET", base_ + "/up/a.txt", "").body, std::string("0") + char(~'1') + "23456789");
  add(R"({"path":"/up/","flip_byte":10})");
  EXPECT_EQ(Fetch("GET", base_ + "/up/a.txt", "").body, "0123456789");
  // A trickled body still arrives whole.
  add(R"({"path":"/up/","trickle_bytes":4,"trickle_interval_ms":1})");
  EXPECT_EQ(Fetch("GET", base_ + "/up/a.txt", "").body, "0123456789");
  // An expired session, a persist limit: both reach the account.
  emulators::UploadSpec spec;
  spec.parent_id = "root";
  spec.name = "s";
  std::string session = emulator_->account().OpenUpload(spec);
  add(R"({"path":"/api/","expire_sessions":true,"persist_limit":2})");
  List();
  EXPECT_FALSE(emulator_->account().FindUpload(session));
  std::uint64_t persisted = 0;
  session = emulator_->account().OpenUpload(spec);
  emulator_->account().AppendUpload(session, 0, "abcdef", &persisted);
  EXPECT_EQ(persisted, 2u);
}

TEST_F(EmulatorTest, ContentAnswersRanges) {
  struct Case {
    const char* range;
    long status;
    const char* body;
    const char* content_range;
  } cases[] = {
      {"", 200, "0123456789", ""},
      {"bytes=2-4", 206, "234", "bytes 2-4/10"},
      {"bytes=7-", 206, "789", "bytes 7-9/10"},
      {"bytes=-3", 206, "789", "bytes 7-9/10"},
      {"bytes=5-100", 206, "56789", "bytes 5-9/10"},
      {"bytes=10-", 416, "", "bytes */10"},
  };
  for (const Case& c : cases) {
    Answer answer = Fetch("GET", base_ + "/up/a.txt", "", "", c.range);
    EXPECT_EQ(answer.status, c.status) << c.range;
    EXPECT_EQ(answer.body, c.body) << c.range;
    if (*c.content_range) {
      EXPECT_NE(answer.headers.find(std::string("Content-Range: ") + c.content_range),
                std::string::npos)
          << c.range << answer.headers;
    }
  }
  // Generated content answers the same pattern bytes in ranges.
  emulators::Item big;
  emulator_->account().CreateGeneratedFile("root", "big", 5 << 20, &big);
  Answer tail = Fetch("GET", base_ + "/up/big", "", "", "bytes=5242870-");
  EXPECT_EQ(tail.body, emulators::PatternString(5242870, 10));
  EXPECT_EQ(big.digests.md5,
            emulators::ContentHasher::Of(emulators::PatternString(0, 5 << 20)).md5);
}

TEST(EmulatorStartTest, UnknownServiceAndBusyPort) {
  std::string error;
  EXPECT_FALSE(Emulator::Start("nosuch", 0, &error));
  EXPECT_EQ(error, "no emulator for nosuch");
  std::unique_ptr<Emulator> first = Emulator::Start(std::make_unique<ListingDialect>(), 0, &error);
  ASSERT_TRUE(first);
  EXPECT_FALSE(Emulator::Start(std::make_unique<ListingDialect>(), first->server().Port(), &error));
  EXPECT_NE(error.find("cannot listen on 127.0.0.1:" + std::to_string(first->server().Port())),
            std::string::npos)
      << error;
}

}  // namespace
