target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKString.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKTextSearch.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKStringNumbers.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKStringNatCompare.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKTextErrors.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKTokenizer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKCharacter.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKUnicodeTables.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKCollator.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKFormat.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKUtf.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKStringConverter.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKStringConvert.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKStringScramble.cpp
)
