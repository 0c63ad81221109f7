// The library's hash of a whole byte string by one of its calculators, as an adapter gets it to
// announce an upload or to check a download.
#pragma once

#include <cstdint>
#include <string>

#include "core/HashCalculators.h"

namespace test {

template <typename Calculator>
SomeHash HashOf(const std::string& bytes) {
  Calculator calculator;
  calculator.Begin();
  calculator.Feed(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                  static_cast<std::uint32_t>(bytes.size()));
  return calculator.Finish();
}

}  // namespace test
