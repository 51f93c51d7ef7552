// The preferences store: typed property-list values per key, domain, user and
// host. Each domain of the current user and current host is kept as one XML
// property list "<domain>.plist" under "<home>/Library/Preferences/", written
// durably on every change. Other users and hosts are not kept: reads answer
// nothing and writes are refused with a log line.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/URL.h"
#include "platform/Value.h"

namespace platform {

inline constexpr std::string_view kPreferencesCurrentUser = "kCurrentUser";
inline constexpr std::string_view kPreferencesAnyUser = "kAnyUser";
inline constexpr std::string_view kPreferencesCurrentHost = "kCurrentHost";
inline constexpr std::string_view kPreferencesAnyHost = "kAnyHost";

class PreferencesStore {
 public:
  // A store over the home directory `home` (a directory URL).
  explicit PreferencesStore(CVURL home);

  // The stored value, or nullopt. A domain file that is missing or unreadable
  // holds nothing; an unreadable one is logged once per read.
  std::optional<CVValue> copyValue(std::string_view key, std::string_view domain,
                                   std::string_view user, std::string_view host) const;
  // Stores `value` (nullopt removes the key) and writes the domain's file at
  // once. Returns whether the write succeeded.
  bool setValue(std::string_view key, std::optional<CVValue> value, std::string_view domain,
                std::string_view user, std::string_view host);

  CVURL fileURLForDomain(std::string_view domain) const;

 private:
  CVURL preferencesDirectory_;
  mutable std::mutex mutex_;
};

}  // namespace platform
