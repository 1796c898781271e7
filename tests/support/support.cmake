# The operating-system helpers of the test suites and the fuzz targets (DKTestPlatform.h), one
# implementation per system.
if(NOT TARGET dk_test_support)
  if(WIN32)
    add_library(dk_test_support STATIC ${CMAKE_CURRENT_LIST_DIR}/win32/DKTestPlatform.cpp)
    target_link_libraries(dk_test_support PRIVATE shell32)
  else()
    add_library(dk_test_support STATIC ${CMAKE_CURRENT_LIST_DIR}/posix/DKTestPlatform.cpp)
  endif()
  target_include_directories(dk_test_support PUBLIC ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(dk_test_support PRIVATE dk_build_options)
endif()
