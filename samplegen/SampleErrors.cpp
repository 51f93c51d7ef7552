#include "samplegen/SampleErrors.h"

#include "platform/Value.h"

namespace samplegen {

CVError sampleGenError(long code, std::string description) {
  CVDictionary userInfo;
  userInfo.set(std::string(kLocalizedDescriptionKey), std::move(description));
  return CVError(std::string(kSampleGenErrorDomain), code, std::move(userInfo));
}

}  // namespace samplegen
