# Hosts that misbehave: with threads, processes, links to the library,
# callbacks and pointers.

zirdb_test_program(misbehaving_threads_test SOURCES misbehaving_threads_test.cpp
                   LIBRARIES real_databases)
zirdb_discover(misbehaving_threads_test LABELS component database)

# Ends later than the library: what is initialised last ends first, and of
# libraries that do not need each other the last one named is initialised first.
add_library(misbehaving_late SHARED misbehaving_late.cpp)
target_link_libraries(misbehaving_late PRIVATE zirdb_warnings
                                               zirdb_instrumentation)
add_executable(misbehaving_host misbehaving_host.cpp)
target_link_libraries(
  misbehaving_host
  PRIVATE zirdb_warnings zirdb_instrumentation zirdb::zirdb misbehaving_late
          Threads::Threads ${CMAKE_DL_LIBS})
zirdb_database_test(misbehaving_processes_test LABELS component database SOURCES
                    misbehaving_processes_test.cpp)
target_compile_definitions(
  misbehaving_processes_test
  PRIVATE MISBEHAVING_HOST="$<TARGET_FILE:misbehaving_host>")
add_dependencies(misbehaving_processes_test misbehaving_host)
set(fork_filter "ForkOfObjects.*")
if(ZIRDB_SANITIZE)
  # The allocators of sanitizers keep their locks across a fork.
  string(APPEND fork_filter "-*WhileThreadsAreInTheLibrary")
endif()
zirdb_discover(
  misbehaving_processes_test
  LIST misbehaving_processes_without_a_driver
  FILTER ${fork_filter}
  LABELS component)

# Loads the library by itself.
add_executable(misbehaving_links_test misbehaving_links_test.cpp)
target_include_directories(misbehaving_links_test
                           PRIVATE "${PROJECT_SOURCE_DIR}/src")
target_compile_definitions(misbehaving_links_test
                           PRIVATE LIBRARY="$<TARGET_FILE:zirdb>")
target_link_libraries(
  misbehaving_links_test PRIVATE zirdb_warnings zirdb_instrumentation
                                 ${CMAKE_DL_LIBS} GTest::gtest
                                 GTest::gtest_main)
add_dependencies(misbehaving_links_test zirdb)
zirdb_discover(misbehaving_links_test LABELS component database)

zirdb_database_test(misbehaving_signals_test LABELS component database SOURCES
                    misbehaving_signals_test.cpp)

zirdb_test_program(
  misbehaving_callbacks_test SOURCES misbehaving_callbacks_test.cpp LIBRARIES
                                     real_databases)
zirdb_discover(misbehaving_callbacks_test LABELS component database)
zirdb_discover_long(misbehaving_callbacks_test FILTER "Reentering*" LABELS
                    component database)

zirdb_test_program(
  misbehaving_pointers_test SOURCES misbehaving_pointers_test.cpp LIBRARIES
                                    real_databases)
zirdb_discover(misbehaving_pointers_test LABELS component database)
