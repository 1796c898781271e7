// The fuzz targets' assertion: a broken property ends the run with the file, line and condition.
#pragma once

#include "support/DKTestPlatform.h"

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
// library reads it again. Windows takes rules from TZ, not zone names: there a named zone leaves
// the system's zone in force.
#define DK_FUZZ_LOCAL_ZONE(zone)                                                                   \
  extern "C" int LLVMFuzzerInitialize(int*, char***) {                                            \
    dktest::SetEnvironment("TZ", zone);                                                            \
    DKTimeZone::Reload();                                                                          \
    return 0;                                                                                      \
  }
