// The fuzz targets' assertion: a broken property ends the run with the file, line and condition.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                                      \
  do {                                                                                             \
    if (!(condition)) {                                                                            \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);           \
      std::abort();                                                                                \
    }                                                                                              \
  } while (0)
