# dorvikcore_add_plugin: builds a plug-in module for DKApplicationWithPlugIns hosts (dkhost).
#
#   dorvikcore_add_plugin(<target> SOURCES <file>... [OUTPUT_NAME <name>] [OUTPUT_DIRECTORY <dir>])
#
# makes <target> a MODULE library named "<name>.osx" (no "lib" prefix; <name> defaults to the
# target's name) that links DorvikCore::DorvikCore, and applies dorvikcore_set_plugin_options.
# Link further libraries and set further properties on <target> as on any other target.
#
#   dorvikcore_set_plugin_options(<target>)
#
# applies the options that keep a module's symbols its own to any target whose code ends up in
# a plug-in (an object or static library linked into one, say). Two modules loaded by one host
# may hold classes of the same name, and each must keep its own:
#   - hidden visibility by default (inline members too): only the entry point that
#     DK_PLUGIN_MODULE exports is seen from outside the module;
#   - GCC: -fno-gnu-unique. GCC marks static data of inline functions and inline static data
#     members (static constexpr ones included) as unique symbols, which the dynamic loader
#     merges across every module of the process even when each is loaded local to itself; a
#     class that is given default visibility would then share its ids with its namesake in
#     another module. Clang never makes unique symbols (and does not know the option);
#     hidden visibility is all it needs;
#   - the symbols of static libraries linked into the module stay hidden (--exclude-libs).
include_guard(GLOBAL)

function(dorvikcore_set_plugin_options target)
  set_target_properties(${target} PROPERTIES
    C_VISIBILITY_PRESET hidden
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-gnu-unique>
                                           $<$<COMPILE_LANG_AND_ID:C,GNU>:-fno-gnu-unique>)
  get_target_property(type ${target} TYPE)
  if((type STREQUAL "MODULE_LIBRARY" OR type STREQUAL "SHARED_LIBRARY") AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_link_options(${target} PRIVATE "LINKER:--exclude-libs,ALL")
  endif()
endfunction()

function(dorvikcore_add_plugin target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "OUTPUT_NAME;OUTPUT_DIRECTORY" "SOURCES")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "dorvikcore_add_plugin(${target}): unknown arguments ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT arg_SOURCES)
    message(FATAL_ERROR "dorvikcore_add_plugin(${target}): SOURCES names no file")
  endif()
  if(NOT TARGET DorvikCore::DorvikCore)
    message(FATAL_ERROR "dorvikcore_add_plugin(${target}): DorvikCore::DorvikCore is not defined (find_package(DorvikCore) first)")
  endif()
  add_library(${target} MODULE ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE DorvikCore::DorvikCore)
  set_target_properties(${target} PROPERTIES PREFIX "" SUFFIX ".osx")
  if(arg_OUTPUT_NAME)
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${arg_OUTPUT_NAME})
  endif()
  if(arg_OUTPUT_DIRECTORY)
    set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${arg_OUTPUT_DIRECTORY})
  endif()
  dorvikcore_set_plugin_options(${target})
endfunction()
