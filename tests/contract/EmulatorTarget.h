// EmulatorTarget: the contract row of a cloud service on its emulator. The account is the
// emulator's model, so the suite sees it past the adapter; a row names its service and how the
// service reports a file's hash in the adapter's type.
//
//   const contract::Registration kBox("box", [] {
//     return std::make_unique<contract::EmulatorTarget>(
//         "box", CloudServiceId::BOX,
//         [](const emulators::Item& item) { return SomeHash::FromBoxSha1(item.digests.sha1); });
//   });
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "contract/ContractTarget.h"
#include "core/CloudServiceId.h"
#include "emulators/Emulator.h"

class RemoteFileSystemFactory;

namespace contract {

class EmulatorTarget : public ContractTarget {
 public:
  using HashOf = std::function<SomeHash(const emulators::Item&)>;

  EmulatorTarget(std::string service, CloudServiceId id, HashOf hash_of);
  ~EmulatorTarget() override;

  bool Start(std::string* error) override;
  RemoteTree Remote() override;
  void PutFile(const std::string& path, const std::string& content) override;
  std::string ReadRemote(const std::string& path) override;
  bool PlantName(const std::string& name) override;
  bool SlowDown() override;
  bool TakesFaults() const override { return true; }
  void AddFault(const emulators::FaultRule& rule) override;
  void ClearFaults() override;

  emulators::Emulator& emulator() { return *emulator_; }

 private:
  std::unique_ptr<RemoteFileSystemFactory> MakeFactory() override;
  std::shared_ptr<const core::cookie::Cookie> Credentials() override;
  void Walk(const std::string& folder_id, const std::string& prefix, RemoteTree* tree);

  std::string service_;
  CloudServiceId id_;
  HashOf hash_of_;
  std::unique_ptr<emulators::Emulator> emulator_;
  std::string mounted_id_;
};

}  // namespace contract
