#include "support/EmulatedAccount.h"

#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "core/Cookie.h"
#include "core/CurlURLProcessorFactory.h"
#include "core/Endpoints.h"
#include "services/RemoteFSFactoryConstructor.h"

namespace bench {

namespace {

// The child's side: the emulator, its endpoints as "NAME URL" lines on `out`, then serving until
// the parent closes `life`.
[[noreturn]] void ServeInChild(std::unique_ptr<emulators::Dialect> dialect,
                               const EmulatedAccount::Prepare& prepare, int out, int life) {
  std::string error;
  std::unique_ptr<emulators::Emulator> emulator =
      emulators::Emulator::Start(std::move(dialect), 0, &error);
  std::string lines;
  if (emulator) {
    prepare(emulator->account());
    for (const auto& [name, url] : emulator->Endpoints())
      lines += name + " " + url + "\n";
  }
  if (write(out, lines.data(), lines.size()) != static_cast<ssize_t>(lines.size()))
    _exit(1);
  close(out);
  char byte;
  while (read(life, &byte, 1) > 0) {
  }
  _exit(0);
}

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0;)
    text.append(buffer, static_cast<std::size_t>(n));
  return text;
}

}  // namespace

EmulatedAccount::EmulatedAccount(std::unique_ptr<emulators::Dialect> dialect, CloudServiceId id) {
  const std::string service = dialect->Service();
  std::string error;
  emulator_ = emulators::Emulator::Start(std::move(dialect), 0, &error);
  if (!emulator_)
    throw std::runtime_error("the " + service + " emulator did not start: " + error);
  for (const auto& [name, url] : emulator_->Endpoints())
    Endpoints::Override(name, url);
  MakeFactory(service, id);
}

EmulatedAccount::EmulatedAccount(std::unique_ptr<emulators::Dialect> dialect, CloudServiceId id,
                                 const Prepare& prepare) {
  const std::string service = dialect->Service();
  // 1. The child, with a pipe for its endpoints and one whose end tells it to stop.
  int endpoints[2], life[2];
  if (pipe(endpoints) != 0 || pipe(life) != 0)
    throw std::runtime_error("no pipe for the emulator's process");
  child_ = fork();
  if (child_ < 0)
    throw std::runtime_error("the emulator's process could not be forked");
  if (child_ == 0) {
    close(endpoints[0]);
    close(life[1]);
    ServeInChild(std::move(dialect), prepare, endpoints[1], life[0]);
  }
  close(endpoints[1]);
  close(life[0]);
  child_life_fd_ = life[1];
  // 2. Its endpoints, or none when it could not start.
  std::istringstream lines(ReadAll(endpoints[0]));
  close(endpoints[0]);
  std::string name, url;
  bool any = false;
  while (lines >> name >> url) {
    Endpoints::Override(name, url);
    any = true;
  }
  if (!any) {
    close(child_life_fd_);
    waitpid(child_, nullptr, 0);
    throw std::runtime_error("the " + service + " emulator did not start in its process");
  }
  MakeFactory(service, id);
}

EmulatedAccount::~EmulatedAccount() {
  factory_.reset();
  emulator_.reset();
  if (child_ > 0) {
    close(child_life_fd_);
    waitpid(child_, nullptr, 0);
  }
  Endpoints::ResetOverrides();
}

void EmulatedAccount::MakeFactory(const std::string& service, CloudServiceId id) {
  factory_.reset(H6BA54F7D00(id, std::string()));
  if (!factory_)
    throw std::runtime_error("the library has no factory for " + service);
}

std::unique_ptr<RemoteFileSystem> EmulatedAccount::Open() {
  std::unique_ptr<RemoteFileSystem> fs(factory_->Create());
  auto urls = std::make_shared<CurlURLProcessorFactory>(
      std::make_shared<core::cookie::CookieOAuth>(kToken));
  if (!fs || !fs->Open(urls))
    return nullptr;
  return fs;
}

}  // namespace bench
