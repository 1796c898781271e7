# The operating-system helpers of the test suites and the fuzz targets (DKTestPlatform.h, and the
# window messages of DKTestWindowMessages.h), one implementation per system. The child-process
# runner reports its failures to GoogleTest.
if(NOT TARGET dk_test_support)
  if(NOT TARGET GTest::gtest)
    find_package(GTest REQUIRED)
  endif()
  if(WIN32)
    add_library(dk_test_support STATIC ${CMAKE_CURRENT_LIST_DIR}/win32/DKTestPlatform.cpp
                                       ${CMAKE_CURRENT_LIST_DIR}/win32/DKTestWindowMessages.cpp)
    target_link_libraries(dk_test_support PRIVATE shell32 user32)
  else()
    add_library(dk_test_support STATIC ${CMAKE_CURRENT_LIST_DIR}/posix/DKTestPlatform.cpp
                                       ${CMAKE_CURRENT_LIST_DIR}/posix/DKTestWindowMessages.cpp)
  endif()
  target_include_directories(dk_test_support PUBLIC ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(dk_test_support PRIVATE GTest::gtest dk_build_options)
endif()
