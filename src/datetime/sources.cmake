target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKCalendar.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKSystemTime.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKTimeZone.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKDurationEx.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKDateTimeText.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKDateEx.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKDateTimeEx.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKDate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKDateExceptions.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKDateTimeParam.cpp
)
