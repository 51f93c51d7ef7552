// Names of the legacy layout that the migrator, the plan of `mavrel plan`
// and the installer all read or write: keys of the legacy install map and of
// the harbor map, the staging layout a legacy container hands to the
// installer, and the marker files a container may hold.
//
// Header only, with no dependency, so that every part of the system can
// share the one spelling of each name.
#pragma once

#include <string_view>

// The legacy install map: its group-container map, and in each group's entry
// the path of the legacy group container.
inline constexpr std::string_view kGroupContainersKey = "GroupContainers";
inline constexpr std::string_view kGroupContainerPathKey = "Container";

// A harbor map entry: the absolute path of the harbor.
inline constexpr std::string_view kHarborPathKey = "HarborPathKey";

// A customer package: "Staging" inside the legacy container, holding
// "Payload" with the bundles.
inline constexpr std::string_view kStagingDirectoryName = "Staging";
inline constexpr std::string_view kPayloadDirectoryName = "Payload";

// The migration marker a container carries while it is migrated, and the
// names a legacy container may still hold once its application has moved.
inline constexpr std::string_view kMigrationMarkerFileName =
    "com.zentrel.corvane.container_migrator.plist";
inline constexpr std::string_view kLegacyMigrationMarkerFileName =
    "com.zentrel.corvane.migration_marker";
inline constexpr std::string_view kLegacyPlaceholderFileName = "com.zentrel.corvane.placeholder";
