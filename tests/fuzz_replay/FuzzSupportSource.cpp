// The fuzz targets' shared support, compiled into the replay program (the
// fuzz directory itself is only built with the fuzzers).
#include "fuzz/FuzzSupport.cpp"
