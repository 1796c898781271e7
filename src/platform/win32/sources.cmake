target_sources(DorvikCore PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/Win32Util.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SystemImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FileImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/DirectoryImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ProcessImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ClockImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ConsoleImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/VariantImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ModuleImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EnvironmentImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ThreadImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MutexImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EventImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SignalImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CrashImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/TimerWindowImpl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ThreadExitImpl.cpp
)
# Named kernel objects (mutexes and events shared between processes).
if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/ObjectNameImpl.cpp)
  target_sources(DorvikCore PRIVATE ${CMAKE_CURRENT_LIST_DIR}/ObjectNameImpl.cpp)
endif()
