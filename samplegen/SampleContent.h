// SampleContent: the bytes of sample files: text for text formats, a format's
// magic number followed by pseudo-random bytes for the rest.
//
// Error contract: as SampleFileWriter's (the first failure is kept there).
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string_view>

#include "samplegen/DeterministicRandom.h"
#include "samplegen/SampleFileWriter.h"

namespace samplegen {

// Writes a file of `size` bytes whose contents suit its name's extension.
// Draws one number from `random`, whatever the size.
bool writeDataFile(SampleFileWriter& writer, std::string_view relative, std::uint64_t size,
                   DeterministicRandom& random);

// Writes `magic` followed by pseudo-random bytes up to `size` in all.
bool writeBinaryFile(SampleFileWriter& writer, std::string_view relative, std::uint64_t size,
                     std::string_view magic, DeterministicRandom& random, mode_t mode = 0644);

}  // namespace samplegen
