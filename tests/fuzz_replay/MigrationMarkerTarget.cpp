// The MigrationMarker fuzz target under a name of its own, so that every target can
// live in the one replay program.
#define LLVMFuzzerTestOneInput replayMigrationMarker
#include "fuzz/MigrationMarkerFuzzer.cpp"
