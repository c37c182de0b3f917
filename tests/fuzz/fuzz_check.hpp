// What the fuzz targets share: a property that must hold, and stops the run when it does not.
#pragma once

#include <cstdio>
#include <cstdlib>

// Aborts, so that libFuzzer saves the input, when `ok` is false.
inline void fuzz_check(bool ok, const char* what) {
  if (!ok) {
    std::fprintf(stderr, "property broken: %s\n", what);
    std::abort();
  }
}
