// The HarborMap fuzz target under a name of its own, so that every target can
// live in the one replay program.
#define LLVMFuzzerTestOneInput replayHarborMap
#include "fuzz/HarborMapFuzzer.cpp"
