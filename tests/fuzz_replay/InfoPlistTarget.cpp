// The InfoPlist fuzz target under a name of its own, so that every target can
// live in the one replay program.
#define LLVMFuzzerTestOneInput replayInfoPlist
#include "fuzz/InfoPlistFuzzer.cpp"
