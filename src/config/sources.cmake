target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKCommandLine.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKUsageInfo.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKConfigFile.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKConfigReader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKConfigWriter.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKConfigEncoding.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKConfig.cpp
)
