// corvane emulate: hosts a service's emulator for people and for process-level tests.
#include <ostream>

#include "Command.h"
#include "Interrupter.h"
#include "emulators/Emulator.h"

namespace corvane {

namespace {

// Any non-empty token passes; this one is only a reminder of that on the printed line.
constexpr const char* kPrintedToken = "emulator";

}  // namespace

int RunEmulate(Context& context) {
  // 1. The emulator on its port.
  const std::string& service = context.options.args[0];
  if (!context.options.port || *context.options.port > 65535) {
    return Fail(context, kExitUsage,
                "emulate: --port N is needed (0 to 65535; 0 takes any free port)");
  }
  std::string error;
  std::unique_ptr<emulators::Emulator> emulator =
      emulators::Emulator::Start(service, static_cast<int>(*context.options.port), &error);
  if (!emulator) {
    return Fail(context, kExitEnvironment, "emulate: " + error);
  }
  // 2. The account's first files.
  if (!context.options.seed.empty() &&
      !emulator->account().SeedFromFolder(context.options.seed, emulator->account().RootId(),
                                          &error)) {
    return Fail(context, kExitEnvironment, "emulate: --seed: " + error);
  }
  // 3. What points corvane at it, then serve until a signal.
  context.out << "--service " << service << " --token " << kPrintedToken;
  for (const auto& endpoint : emulator->Endpoints()) {
    context.out << " --endpoint " << endpoint.first << "=" << endpoint.second;
  }
  context.out << "\ncontrol: " << emulator->BaseUrl() << emulators::Emulator::kControlPath
              << "\nready" << std::endl;
  context.interrupter.WaitForSignal();
  return 0;
}

}  // namespace corvane
