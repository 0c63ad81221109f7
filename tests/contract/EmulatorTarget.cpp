#include "contract/EmulatorTarget.h"

#include <chrono>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "services/RemoteFSFactoryConstructor.h"

namespace contract {

namespace {

constexpr char kMounted[] = "mounted";

std::int64_t HourAgoMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
             .count() -
         3600 * 1000;
}

}  // namespace

EmulatorTarget::EmulatorTarget(std::string service, CloudServiceId id, HashOf hash_of)
    : service_(std::move(service)), id_(id), hash_of_(std::move(hash_of)) {}

EmulatorTarget::~EmulatorTarget() {
  Endpoints::ResetOverrides();
}

bool EmulatorTarget::Start(std::string* error) {
  emulator_ = emulators::Emulator::Start(service_, 0, error);
  if (!emulator_)
    return false;
  for (const auto& [name, url] : emulator_->Endpoints())
    Endpoints::Override(name, url);
  emulators::Item mounted;
  if (emulator_->account().CreateFolder(emulator_->account().RootId(), kMounted, &mounted) !=
      emulators::AccountError::kNone) {
    *error = "cannot make the mounted folder";
    return false;
  }
  mounted_id_ = mounted.id;
  return true;
}

std::unique_ptr<RemoteFileSystemFactory> EmulatorTarget::MakeFactory() {
  return std::unique_ptr<RemoteFileSystemFactory>(H6BA54F7D00(id_, std::string("/") + kMounted));
}

std::shared_ptr<const core::cookie::Cookie> EmulatorTarget::Credentials() {
  return std::make_shared<core::cookie::CookieOAuth>("contract-token",
                                                     emulator_->dialect().AuthScheme());
}

void EmulatorTarget::Walk(const std::string& folder_id, const std::string& prefix,
                          RemoteTree* tree) {
  for (const emulators::Item& item : emulator_->account().Children(folder_id)) {
    std::string path = prefix + item.name;
    (*tree)[path] =
        RemoteItem{item.IsFolder(), item.size, static_cast<std::uint64_t>(item.modified_ms / 1000),
                   item.IsFolder() ? SomeHash() : hash_of_(item)};
    if (item.IsFolder())
      Walk(item.id, path + "/", tree);
  }
}

RemoteTree EmulatorTarget::Remote() {
  RemoteTree tree;
  Walk(mounted_id_, "", &tree);
  return tree;
}

void EmulatorTarget::PutFile(const std::string& path, const std::string& content) {
  emulators::CloudAccount& account = emulator_->account();
  std::string folder_id = mounted_id_;
  std::size_t start = 0;
  for (std::size_t slash; (slash = path.find('/', start)) != std::string::npos; start = slash + 1) {
    std::string name = path.substr(start, slash - start);
    std::optional<emulators::Item> child = account.ChildByName(folder_id, name);
    emulators::Item made;
    if (!child)
      account.CreateFolder(folder_id, name, &made);
    folder_id = child ? child->id : made.id;
  }
  std::string name = path.substr(start);
  if (std::optional<emulators::Item> file = account.ChildByName(folder_id, name)) {
    account.ReplaceContent(file->id, content, HourAgoMs(), nullptr);
  } else {
    account.CreateFile(folder_id, name, content, HourAgoMs(), nullptr);
  }
}

std::string EmulatorTarget::ReadRemote(const std::string& path) {
  std::optional<emulators::Item> item =
      emulator_->account().FindByPath(std::string(kMounted) + "/" + path);
  return item && item->content ? *item->content : std::string();
}

bool EmulatorTarget::PlantName(const std::string& name) {
  return emulator_->account().CreateFile(mounted_id_, name, "planted", HourAgoMs(), nullptr) ==
         emulators::AccountError::kNone;
}

void EmulatorTarget::AddFault(const emulators::FaultRule& rule) {
  emulator_->faults().Add(rule);
}

void EmulatorTarget::ClearFaults() {
  emulator_->faults().Clear();
}

bool EmulatorTarget::SlowDown() {
  emulator_->faults().Add(emulators::FaultRule::On().Times(0).DelayMs(5000));
  return true;
}

}  // namespace contract
