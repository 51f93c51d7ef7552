// The Preferences fuzz target under a name of its own, so that every target can
// live in the one replay program.
#define LLVMFuzzerTestOneInput replayPreferences
#include "fuzz/PreferencesFuzzer.cpp"
