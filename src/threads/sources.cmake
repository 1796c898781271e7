target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKCrashHandler.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKCriticalSection.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKMutex.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKSemaphore.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKThread.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKThreadInfo.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKThreadPool.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKTimer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKSchedule.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKScheduleTimer.cpp
)
