// Random bytes from the kernel's cryptographically secure generator.
//
// Error contract: fillRandomBytes returns 0 with every byte of the buffer
// filled, or -1 with the error number in errno (the generator not yet
// seeded is waited for, interrupted reads are retried).
#pragma once

#include <cstddef>

namespace platform::sys {

int fillRandomBytes(void* buffer, std::size_t size);

}  // namespace platform::sys
