// EmulatedAccount: a service's emulator on a free loopback port with the library's endpoints
// pointed at it, and adapters of one factory opened on it as the core opens them.
//
//   bench::EmulatedAccount drive(emulators::MakeDialect("google"), CloudServiceId::GOOGLE);
//   drive.account().CreateFolder(drive.account().RootId(), "Docs", nullptr);
//   std::unique_ptr<RemoteFileSystem> fs = drive.Open();
//
// An emulator in a child process keeps its memory out of the figures of this one: what a
// measurement of the resident memory then sees is the adapter's alone.
//
//   bench::EmulatedAccount dropbox(emulators::MakeDialect("dropbox"), CloudServiceId::DROPBOX,
//                                  [](emulators::CloudAccount& a) { a.SetKeepContentLimit(0); });
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "core/CloudServiceId.h"
#include "core/RemoteFileSystem.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/Emulator.h"

namespace bench {

class EmulatedAccount {
 public:
  using Prepare = std::function<void(emulators::CloudAccount& account)>;

  // In this process. Throws when the emulator can't start, which ends the benchmark with the
  // reason.
  EmulatedAccount(std::unique_ptr<emulators::Dialect> dialect, CloudServiceId id);
  // In a child process forked now, its account readied by `prepare` before it serves. Fork it
  // before this process has threads of its own (before any adapter or emulator here).
  EmulatedAccount(std::unique_ptr<emulators::Dialect> dialect, CloudServiceId id,
                  const Prepare& prepare);
  ~EmulatedAccount();
  EmulatedAccount(const EmulatedAccount&) = delete;
  EmulatedAccount& operator=(const EmulatedAccount&) = delete;

  // A fresh adapter of the account's factory, opened with a token; null when it would not open.
  std::unique_ptr<RemoteFileSystem> Open();
  // Only of an emulator in this process.
  emulators::CloudAccount& account() { return emulator_->account(); }
  emulators::Emulator& emulator() { return *emulator_; }
  static constexpr const char* kToken = "bench-token";

 private:
  void MakeFactory(const std::string& service, CloudServiceId id);

  std::unique_ptr<emulators::Emulator> emulator_;
  pid_t child_ = -1;
  int child_life_fd_ = -1;  // the child serves until this closes
  std::unique_ptr<RemoteFileSystemFactory> factory_;
};

}  // namespace bench
