// A RemoteNameMapper that changes nothing, for fuzz targets and benchmarks that link no test
// support library. Header-only for that reason.
#pragma once

#include "core/RemoteNameMapper.h"

namespace test {

class PassThroughNameMapper : public RemoteNameMapper {
 protected:
  const InvalidSymbolsMapping::Map& SymbolsMap() const override {
    static const InvalidSymbolsMapping::Map kNothing;
    return kNothing;
  }
};

}  // namespace test
