target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKDirectory.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKProcess.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKFile.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKClock.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKCrash.cpp
)
