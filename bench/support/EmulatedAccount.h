// EmulatedAccount: a service's emulator on a free loopback port with the library's endpoints
// pointed at it, and adapters of one factory opened on it as the core opens them.
//
//   bench::EmulatedAccount drive("google", CloudServiceId::GOOGLE);
//   drive.account().CreateFolder(drive.account().RootId(), "Docs", nullptr);
//   std::unique_ptr<RemoteFileSystem> fs = drive.Open();
#pragma once

#include <memory>
#include <string>

#include "core/CloudServiceId.h"
#include "core/RemoteFileSystem.h"
#include "core/RemoteFileSystemFactory.h"
#include "emulators/Emulator.h"

namespace bench {

class EmulatedAccount {
 public:
  // `service`: the emulator's dialect name ("google", "onedrive", ...). Throws when the emulator
  // can't start, which ends the benchmark with the reason.
  EmulatedAccount(const std::string& service, CloudServiceId id);
  ~EmulatedAccount();
  EmulatedAccount(const EmulatedAccount&) = delete;
  EmulatedAccount& operator=(const EmulatedAccount&) = delete;

  // A fresh adapter of the account's factory, opened with a token; null when it would not open.
  std::unique_ptr<RemoteFileSystem> Open();
  emulators::CloudAccount& account() { return emulator_->account(); }
  emulators::Emulator& emulator() { return *emulator_; }
  static constexpr const char* kToken = "bench-token";

 private:
  std::unique_ptr<emulators::Emulator> emulator_;
  std::unique_ptr<RemoteFileSystemFactory> factory_;
};

}  // namespace bench
