// A RemoteNameMapper with the Windows table, as the adapters have it: for tests of code that is
// given a mapper by its adapter.
#pragma once

#include "core/RemoteNameMapper.h"

namespace test {

class WindowsNameMapper : public RemoteNameMapper {
 protected:
  const InvalidSymbolsMapping::Map& SymbolsMap() const override {
    return InvalidSymbolsMapping::kInvalidSymbolsMap_StdWin;
  }
};

}  // namespace test
