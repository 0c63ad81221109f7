#include "services/ResumableUpload.h"

#include <gtest/gtest.h>

#include <string>

#include "core/LoggerWrapper.h"
#include "core/RadarsLogger.h"
#include "core/SomeHash.h"

namespace {

// A record with the member names the store reads by default.
struct Session {
  HashGoogle hash;
  std::uint64_t size = 0;
  std::uint64_t offset = 0;
  std::string url;
};

// A record that names its fields otherwise, as the Dropbox one does.
struct DropboxLikeSession {
  HashDropbox resumeHash;
  std::uint64_t resumeSize = 0;
  std::uint64_t sessionOffset = 0;
};

}  // namespace

template <>
struct resumable_upload::SessionFields<DropboxLikeSession> {
  static HashDropbox& Hash(DropboxLikeSession& s) { return s.resumeHash; }
  static const HashDropbox& Hash(const DropboxLikeSession& s) { return s.resumeHash; }
  static std::uint64_t Size(const DropboxLikeSession& s) { return s.resumeSize; }
  static std::uint64_t Offset(const DropboxLikeSession& s) { return s.sessionOffset; }
};

namespace {

HashGoogle Md5(char digit) {
  return HashGoogle::FromHexString(std::string(32, digit));
}

Session MakeSession(char digit, std::uint64_t size, std::uint64_t offset) {
  return Session{Md5(digit), size, offset, "https://upload/" + std::string(1, digit)};
}

TEST(ResumableSessionsTest, StoredSessionIsTakenOnceForTheSameContent) {
  resumable_upload::ResumableSessions<Session> store;
  LoggerWrapper::Capture capture;
  store.Store("a/b.bin", MakeSession('1', 1000, 300));
  EXPECT_TRUE(
      capture.Contains("Stored upload session to be resumed later \"a/b.bin\" (stopped at 300)."));
  Session session;
  ASSERT_TRUE(store.TakeForResume("a/b.bin", SomeHash(Md5('1')), 1000, &session));
  EXPECT_EQ(session.offset, 300u);
  EXPECT_EQ(session.url, "https://upload/1");
  EXPECT_TRUE(capture.Contains("Resuming upload session for \"a/b.bin\" (" +
                               SomeHash(Md5('1')).ToDisplayString() + ") from 300."));
  EXPECT_FALSE(store.TakeForResume("a/b.bin", SomeHash(Md5('1')), 1000, &session));
  EXPECT_EQ(session.url, "");
}

TEST(ResumableSessionsTest, RefusalsClearTheSessionAndSayWhy) {
  struct Case {
    const char* name;
    SomeHash hash;
    std::uint64_t size;
    std::string line;   // empty: no line
    bool still_stored;  // the stored session survives
  };
  const std::vector<Case> cases = {
      {"empty hash", SomeHash(), 1000, "", true},
      {"other hash", SomeHash(Md5('2')), 1000,
       "Hash of \"p\" changed between uploads, expected " + std::string(32, '1') + ", got " +
           std::string(32, '2') + ", upload not resumed.",
       false},
      {"one byte smaller", SomeHash(Md5('1')), 999,
       "Size of \"p\" changed between uploads, expected 1000, got 999, upload not resumed.", false},
      {"one byte larger", SomeHash(Md5('1')), 1001,
       "Size of \"p\" changed between uploads, expected 1000, got 1001, upload not resumed.",
       false},
      {"smaller than what the server holds", SomeHash(Md5('1')), 5,
       "Size of \"p\" changed between uploads, expected 1000, got 5, upload not resumed.", false},
      {"empty now", SomeHash(Md5('1')), 0,
       "Size of \"p\" changed between uploads, expected 1000, got 0, upload not resumed.", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    resumable_upload::ResumableSessions<Session> store;
    store.Store("p", MakeSession('1', 1000, 10));
    LoggerWrapper::Capture capture;
    Session session = MakeSession('9', 1, 1);
    EXPECT_FALSE(store.TakeForResume("p", c.hash, c.size, &session));
    EXPECT_EQ(session.url, "");
    EXPECT_TRUE(session.hash.IsZero());
    if (!c.line.empty()) {
      EXPECT_TRUE(capture.Contains(c.line));
    }
    EXPECT_EQ(store.Count(), c.still_stored ? 1u : 0u);
  }
}

TEST(ResumableSessionsTest, SessionFromOffsetZeroResumes) {
  resumable_upload::ResumableSessions<Session> store;
  store.Store("p", MakeSession('3', 50, 0));
  Session session;
  EXPECT_TRUE(store.TakeForResume("p", SomeHash(Md5('3')), 50, &session));
  EXPECT_EQ(session.offset, 0u);
}

TEST(ResumableSessionsTest, TheHundredAndFirstSessionEvictsTheLeastAdvanced) {
  resumable_upload::ResumableSessions<Session> store;
  for (int i = 0; i < 100; ++i) {
    store.Store("p" + std::to_string(i), MakeSession('1', 1000, 100 + (i * 37) % 100));
  }
  // Offsets run 100..199 once each: "p0" holds the least advanced (100).
  RadarsLogger::Capture metrics;
  store.Store("new", MakeSession('1', 1000, 5));
  EXPECT_EQ(metrics.Count("too_many_sessions"), 1u);
  EXPECT_EQ(store.Count(), 100u);
  Session session;
  EXPECT_FALSE(store.TakeForResume("p0", SomeHash(Md5('1')), 1000, &session));
  EXPECT_TRUE(store.TakeForResume("new", SomeHash(Md5('1')), 1000, &session));

  // Full again; storing for a path already present still evicts first.
  store.Store("new", MakeSession('1', 1000, 5));
  metrics.Clear();
  store.Store("p1", MakeSession('1', 1000, 500));
  EXPECT_EQ(metrics.Count("too_many_sessions"), 1u);
  // The path was present: eviction left one place free.
  EXPECT_EQ(store.Count(), 99u);
  EXPECT_FALSE(store.TakeForResume("new", SomeHash(Md5('1')), 1000, &session));
  ASSERT_TRUE(store.TakeForResume("p1", SomeHash(Md5('1')), 1000, &session));
  EXPECT_EQ(session.offset, 500u);
}

TEST(ResumableSessionsTest, StoreWithHashSetsTheHashOnlyOfASessionThatCanUseIt) {
  const SomeHash hash(HashDropbox::FromHexString(std::string(64, 'a')));
  struct Case {
    const char* name;
    SomeHash hash;
    DropboxLikeSession session;
    bool stored;
  };
  const std::vector<Case> cases = {
      {"fresh session", hash, {HashDropbox(), 100, 40}, true},
      {"empty hash", SomeHash(), {HashDropbox(), 100, 40}, false},
      {"hash already known",
       hash,
       {HashDropbox::FromHexString(std::string(64, 'b')), 100, 40},
       false},
      {"size unknown", hash, {HashDropbox(), 0, 0}, false},
      {"offset beyond size", hash, {HashDropbox(), 100, 101}, false},
  };
  for (Case c : cases) {
    SCOPED_TRACE(c.name);
    resumable_upload::ResumableSessions<DropboxLikeSession> store;
    LoggerWrapper::Capture capture;
    store.StoreWithHash("x", c.hash, c.session, &SomeHash::GetHashDropbox);
    EXPECT_EQ(store.Count(), c.stored ? 1u : 0u);
    if (c.stored) {
      EXPECT_TRUE(capture.Contains("Set hash for \"x\" is " + hash.ToDisplayString() + "."));
      DropboxLikeSession taken;
      ASSERT_TRUE(store.TakeForResume("x", hash, 100, &taken));
      EXPECT_EQ(taken.sessionOffset, 40u);
    }
  }
  resumable_upload::ResumableSessions<DropboxLikeSession> store;
  LoggerWrapper::Capture capture;
  DropboxLikeSession session{HashDropbox(), 100, 40};
  store.StoreWithHash("x", SomeHash(), session, &SomeHash::GetHashDropbox);
  EXPECT_EQ(capture.LinesAtLevel(LogType::kError).size(), 1u);
  EXPECT_TRUE(capture.Contains("Empty hash, session not added for \"x\"."));
}

}  // namespace
