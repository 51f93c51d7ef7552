// The current thread's name, as the platform's thread-naming call sets it.
//
// Linux keeps at most 15 bytes of a thread name; a longer name is cut at the
// last whole UTF-8 character that fits. The empty name means "no name".
//
// Linux names the main thread after the program and a new thread after the
// thread that created it, so the kernel always has some name to report. A
// thread counts as named only once this program named it through
// setCurrentThreadName; until then currentThreadName answers "". Setting ""
// clears the name.
//
// Error contract: setCurrentThreadName returns false when the system refuses
// the name; currentThreadName returns "" when the name cannot be read.
#pragma once

#include <string>
#include <string_view>

namespace platform {

bool setCurrentThreadName(std::string_view name);
std::string currentThreadName();

}  // namespace platform
