// An emulator the library's adapters reach: started on a free port, with every endpoint of its
// service pointed at it. A test fails where its emulator can't start; Endpoints::ResetOverrides()
// points the library back at the real services.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "core/Endpoints.h"
#include "emulators/Dialect.h"
#include "emulators/Emulator.h"

namespace test {

inline std::unique_ptr<emulators::Emulator> StartEmulator(
    std::unique_ptr<emulators::Dialect> dialect) {
  std::string error;
  std::unique_ptr<emulators::Emulator> emulator =
      emulators::Emulator::Start(std::move(dialect), 0, &error);
  if (!emulator) {
    ADD_FAILURE() << "the emulator did not start: " << error;
    return emulator;
  }
  for (const auto& [name, url] : emulator->Endpoints())
    Endpoints::Override(name, url);
  return emulator;
}

}  // namespace test
