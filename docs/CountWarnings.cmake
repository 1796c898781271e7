# Tells how many warnings Doxygen wrote to WARNINGS (cmake -DWARNINGS=<file> -P CountWarnings.cmake).
file(STRINGS ${WARNINGS} lines REGEX ": (warning|error): ")
list(LENGTH lines count)
message(STATUS "API reference: ${count} Doxygen warnings (undocumented members and others) in ${WARNINGS}")
