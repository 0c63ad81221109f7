// Faults: what a test or a person tells an emulator to do wrong, the same for every service.
//
//   emulator.faults().Add(emulators::FaultRule::On("GET", "/drive/v3/files")
//                             .Nth(2)        // the second matching request from now on...
//                             .Times(3)      // ...and the two after it
//                             .Status(429)   // answered with the service's own rate-limit body
//                             .RetryAfter(7));
//
// A process gives the same rule as JSON on the control path (POST /_emulator/faults):
//   {"verb":"GET","path":"/drive/v3/files","nth":2,"times":3,"status":429,"retry_after":7}
// with the other keys named as the members below ("delay_ms", "cut_after", "flip_byte", "reset",
// "trickle_bytes", "trickle_interval_ms", "drop_field", "persist_limit", "expire_sessions",
// "error") and a foreign change as "change": {"op":"rename","path":"a/b","to":"c"}.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace emulators {

class CloudAccount;

// A change made by someone else, by path below the root: "create" (a file with `content`),
// "mkdir", "modify" (new `content`), "rename" (to the name `to`), "move" (into the folder path
// `to`), "trash", "delete" (for good), "share" (marks it shared with the account).
struct ForeignChange {
  std::string op;
  std::string path;
  std::string to;
  std::string content;
};

// Missing folders of a "create" or "mkdir" are made on the way.
bool ApplyForeignChange(CloudAccount& account, const ForeignChange& change, std::string* error);

struct Fault {
  int status = 0;          // answer with this status and the service's own error body...
  std::string error;       // ...of this error code (empty: the status's usual one)
  int retry_after_s = -1;  // adds "Retry-After"
  int delay_ms = 0;        // before the head
  std::uint64_t cut_after = UINT64_MAX;  // the body ends (FIN) after this many bytes
  std::uint64_t flip_byte = UINT64_MAX;  // this byte of the body goes out with its bits inverted
  bool reset = false;  // a TCP reset instead of the answer, or after cut_after bytes
  std::size_t trickle_bytes = 0;
  int trickle_interval_ms = 0;
  std::string drop_field;                     // this key leaves every object of the JSON answer
  std::uint64_t persist_limit = UINT64_MAX;   // the next upload piece persists at most this
  bool expire_sessions = false;               // every open upload session is gone
  std::optional<ForeignChange> change_after;  // made once this request is answered
};

struct FaultRule {
  std::string verb;         // empty: any
  std::string path_prefix;  // empty: any
  int nth = 1;              // the first matching request it takes, counted from its adding
  int times = 1;            // how many in a row; 0 or less: every one from nth on
  Fault fault;

  // A rule in one expression. The setters change this rule and hand it back; the rule On() makes
  // lives to the end of the statement, so keep a chain's result by value, never by reference.
  static FaultRule On(std::string verb = {}, std::string path_prefix = {}) {
    FaultRule rule;
    rule.verb = std::move(verb);
    rule.path_prefix = std::move(path_prefix);
    return rule;
  }
  FaultRule& Nth(int n) { return Set(&FaultRule::nth, n); }
  FaultRule& Times(int n) { return Set(&FaultRule::times, n); }
  FaultRule& Status(int status) { return Set(&Fault::status, status); }
  FaultRule& Error(std::string error) { return Set(&Fault::error, std::move(error)); }
  FaultRule& RetryAfter(int seconds) { return Set(&Fault::retry_after_s, seconds); }
  FaultRule& DelayMs(int ms) { return Set(&Fault::delay_ms, ms); }
  FaultRule& CutAfter(std::uint64_t bytes) { return Set(&Fault::cut_after, bytes); }
  FaultRule& FlipByte(std::uint64_t at) { return Set(&Fault::flip_byte, at); }
  FaultRule& Reset(bool reset = true) { return Set(&Fault::reset, reset); }
  FaultRule& Trickle(std::size_t bytes, int interval_ms) {
    Set(&Fault::trickle_bytes, bytes);
    return Set(&Fault::trickle_interval_ms, interval_ms);
  }
  FaultRule& DropField(std::string field) { return Set(&Fault::drop_field, std::move(field)); }
  FaultRule& PersistLimit(std::uint64_t bytes) { return Set(&Fault::persist_limit, bytes); }
  FaultRule& ExpireSessions() { return Set(&Fault::expire_sessions, true); }
  FaultRule& ChangeAfter(ForeignChange change) {
    return Set(&Fault::change_after, std::move(change));
  }

 private:
  template <typename Member, typename Value>
  FaultRule& Set(Member FaultRule::*member, Value&& value) {
    this->*member = std::forward<Value>(value);
    return *this;
  }
  template <typename Member, typename Value>
  FaultRule& Set(Member Fault::*member, Value&& value) {
    fault.*member = std::forward<Value>(value);
    return *this;
  }
};

class FaultBook {
 public:
  void Add(const FaultRule& rule);
  // Reads the JSON form; false with `error` set when it isn't one.
  bool Add(const std::string& json, std::string* error);
  void Clear();
  // The fault of the first rule that takes this request. Every rule that matches counts it.
  std::optional<Fault> Take(const std::string& verb, const std::string& path);
  // Faults handed out so far.
  int Fired() const;

 private:
  struct Entry {
    FaultRule rule;
    int seen = 0;
  };
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  int fired_ = 0;
};

}  // namespace emulators
