// The version of the programs this project builds (mavrel, mavrel-mkimage),
// which every JSON document they print or write carries.
#pragma once

#include <string_view>

namespace platform {

inline constexpr std::string_view kMavrelVersion = "0.1.0";

}  // namespace platform
