target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKDouble.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKError.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKMessageSource.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKLibraryMessages.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKException.cpp
)
