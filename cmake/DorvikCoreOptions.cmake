# Warning and sanitizer settings shared by every target of the project.
add_library(dk_build_options INTERFACE)
target_compile_options(dk_build_options INTERFACE -Wall -Wextra -Wpedantic)
if(DK_WERROR)
  target_compile_options(dk_build_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
  # From GCC 12 on, -O3 inlines std::string's operator+ into -Wrestrict false positives inside
  # the standard library's own headers (GCC bug 105651); every test target trips it in Release.
  target_compile_options(dk_build_options INTERFACE -Wno-restrict)
endif()
if(DK_SANITIZE)
  target_compile_options(dk_build_options INTERFACE -fsanitize=${DK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(dk_build_options INTERFACE -fsanitize=${DK_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12's sanitizer instrumentation makes -Wmaybe-uninitialized report standard-library
    # internals (std::function inside std::regex) that are initialised; the sanitizers
    # themselves check what that warning guesses at.
    target_compile_options(dk_build_options INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()
if(DK_BUILD_FUZZ)
  # The library is instrumented for coverage; only the fuzz executables link libFuzzer's main.
  target_compile_options(dk_build_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
