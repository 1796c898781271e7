// Symbol export for the DorvikCore shared library. Everything is hidden by default;
// classes and functions that form the library's interface carry DK_EXPORT.
#pragma once

#if defined(_WIN32)
#  if defined(DORVIKCORE_BUILDING)
#    define DK_EXPORT __declspec(dllexport)
#    define DK_EXPORT_ATTRIBUTE gnu::dllexport
#  else
#    define DK_EXPORT __declspec(dllimport)
#    define DK_EXPORT_ATTRIBUTE gnu::dllimport
#  endif
#else
// Put before a class or function name: exports it from the library while the library is built
// and imports it in the programs that use it (Windows), or makes it visible (elsewhere).
#  define DK_EXPORT __attribute__((visibility("default")))
// DK_EXPORT as a standard attribute, for a class that carries another standard attribute
// (GCC accepts no mix of the two syntaxes there): class [[nodiscard, DK_EXPORT_ATTRIBUTE]] X.
#  define DK_EXPORT_ATTRIBUTE gnu::visibility("default")
#endif
