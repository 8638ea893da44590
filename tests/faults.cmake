# One thing after the other going wrong on a journey.

zirdb_scripted_test(faults_odbc_test LABELS component SOURCES
                    faults_odbc_test.cpp)

# The scripted database is built in, in place of the driver manager, whose own
# requests would fail too. It defines malloc, which all libraries must find in
# the program.
zirdb_workbench_program(
  faults_memory_test
  SOURCES faults_memory_test.cpp runtime_allocator.cpp
          support/unwatched_database.cpp
          $<TARGET_OBJECTS:scripted_face_stand_in>)
target_include_directories(faults_memory_test SYSTEM
                           PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
set_target_properties(faults_memory_test PROPERTIES ENABLE_EXPORTS ON)
zirdb_discover(faults_memory_test LABELS component odbc)

# Opens the library late, and so is not linked with it. It defines malloc, which
# all libraries must find in the program.
add_executable(faults_thread_test faults_thread_test.cpp runtime_allocator.cpp)
target_compile_definitions(faults_thread_test
                           PRIVATE LIBRARY="$<TARGET_FILE:zirdb>")
target_include_directories(
  faults_thread_test PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}"
                             "${PROJECT_SOURCE_DIR}/src")
target_link_libraries(
  faults_thread_test PRIVATE zirdb_warnings zirdb_instrumentation
                             ${CMAKE_DL_LIBS} GTest::gtest GTest::gtest_main)
set_target_properties(faults_thread_test PROPERTIES ENABLE_EXPORTS ON)
add_dependencies(faults_thread_test zirdb)
zirdb_discover(faults_thread_test LABELS runtime component)
