# Warning and sanitizer settings shared by every target of the project.
add_library(dk_build_options INTERFACE)
target_compile_options(dk_build_options INTERFACE -Wall -Wextra -Wpedantic)
if(DK_WERROR)
  target_compile_options(dk_build_options INTERFACE -Werror)
endif()
if(DK_SANITIZE)
  target_compile_options(dk_build_options INTERFACE -fsanitize=${DK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(dk_build_options INTERFACE -fsanitize=${DK_SANITIZE})
endif()
if(DK_BUILD_FUZZ)
  # The library is instrumented for coverage; only the fuzz executables link libFuzzer's main.
  target_compile_options(dk_build_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
