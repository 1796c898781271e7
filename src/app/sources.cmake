target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKAppPath.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKApplication.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKApplicationWithPlugIns.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKExportedConstants.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKGuid.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKObjectFactory.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKPlugIn.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKPlugInLoadProgress.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKPlugInLoading.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKPlugInOrder.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKShutdownWatch.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKUnitTest.cpp
)
