target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKMemoryPool.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKRefCount.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKThreadExit.cpp
)
