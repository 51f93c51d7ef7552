// The install options the migrator hands to the installer service: one
// builder per package type, so that the migrator and the tests that stand in
// for it send the same dictionaries.
#pragma once

#include <optional>
#include <string>

#include "platform/Value.h"

namespace platform {

// A customer package (a staging directory holding "Payload") installed for
// migration: install type 6, the executable verified, the blacklist skipped.
CVDictionary migrationCustomerInstallOptions(const std::string& identifier);

// A placeholder bundle installed for migration, with the store metadata when
// there is any.
CVDictionary migrationPlaceholderInstallOptions(const std::string& identifier,
                                                std::optional<CVData> storeMetadata);

}  // namespace platform
