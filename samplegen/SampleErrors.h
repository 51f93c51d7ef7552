// The sample-image generator's own error records.
#pragma once

#include <string>
#include <string_view>

#include "platform/Error.h"

namespace samplegen {

inline constexpr std::string_view kSampleGenErrorDomain = "SampleGenErrorDomain";
// A path that would leave the root, or a root that is not usable.
inline constexpr long kSampleGenBadPathError = 1;
// The options name something the image does not have.
inline constexpr long kSampleGenBadOptionError = 2;
// The root directory already holds something.
inline constexpr long kSampleGenRootNotEmptyError = 3;
// An image or property list could not be encoded.
inline constexpr long kSampleGenEncodingError = 4;

CVError sampleGenError(long code, std::string description);

}  // namespace samplegen
