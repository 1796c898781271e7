# Tells how many warnings Doxygen wrote to WARNINGS, each counted once (a member of a class template
# is reported once per instantiation); with STRICT on, prints them and fails.
#   cmake -DWARNINGS=<file> [-DSTRICT=ON] -P CountWarnings.cmake
file(STRINGS ${WARNINGS} lines REGEX ": (warning|error): ")
list(REMOVE_DUPLICATES lines)
list(LENGTH lines count)
message(STATUS "API reference: ${count} Doxygen warnings (undocumented members and others) in ${WARNINGS}")
if(STRICT AND count GREATER 0)
  list(JOIN lines "\n" text)
  message(FATAL_ERROR "API reference: DK_DOCS_STRICT is on and Doxygen warned:\n${text}")
endif()
