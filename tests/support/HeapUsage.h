// The bytes of heap in use by the whole process, as the allocator counts them; for tests that
// check that some work runs in bounded memory.
#pragma once

#include <cstddef>

namespace test {

std::size_t HeapInUse();

}  // namespace test
