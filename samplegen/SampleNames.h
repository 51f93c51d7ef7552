// SampleNames: the words the sample image is made of: vendor and product
// names, bundle identifiers, file and folder names, and filler text.
//
// Error contract: nothing here fails.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "samplegen/DeterministicRandom.h"

namespace samplegen {

struct VendorName {
  std::string display;     // "Cedar Loop Labs"
  std::string identifier;  // "com.cedarlooplabs"
};

struct ProductName {
  std::string display;  // "Quiet Notes"
  std::string bundle;   // "QuietNotes": the bundle's and the executable's name
  std::string token;    // "quietnotes": the last component of the identifier
};

VendorName makeVendorName(DeterministicRandom& random);
ProductName makeProductName(DeterministicRandom& random);

// Words for folders, documents and filler text.
std::span<const std::string_view> documentFolderNames();
std::span<const std::string_view> documentStems();
std::span<const std::string_view> fillerWords();
std::span<const std::string_view> genres();

// Appends filler text to `out` until it holds `size` bytes (lines of words).
void appendFillerText(DeterministicRandom& random, std::string& out, std::size_t size);

}  // namespace samplegen
