// Symbol export for the DorvikCore shared library. Everything is hidden by default;
// classes and functions that form the library's interface carry DK_EXPORT.
#pragma once

#if defined(_WIN32)
#  if defined(DORVIKCORE_BUILDING)
#    define DK_EXPORT __declspec(dllexport)
#  else
#    define DK_EXPORT __declspec(dllimport)
#  endif
#else
#  define DK_EXPORT __attribute__((visibility("default")))
#endif
