target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKConsole.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKLog.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKTrace.cpp
)
