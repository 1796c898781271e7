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

// The start-up hook of the date targets: the local zone is set before the first input, and the
// library reads it again.
#define DK_FUZZ_LOCAL_ZONE(zone)                                                                   \
  extern "C" int LLVMFuzzerInitialize(int*, char***) {                                            \
    setenv("TZ", zone, 1);                                                                         \
    DKTimeZone::Reload();                                                                          \
    return 0;                                                                                      \
  }
