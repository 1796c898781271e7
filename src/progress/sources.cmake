target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKProgress.cpp
)
