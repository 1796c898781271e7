target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/DKCondition.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKConditionText.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKRegEx.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKRegExParser.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKRegExCompiler.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKRegExMatcher.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DKRegExBitParallel.cpp
)
