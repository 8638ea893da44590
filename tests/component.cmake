# The component: through the shared library where a host can reach it, and
# through its workbench where only the library itself can.

# The whole library, built in, with the component's insides in reach.
add_library(
  zirdb_component_workbench STATIC
  ../src/zir.cpp ../src/zirdb_odbc.cpp support/component_workbench.cpp)
target_include_directories(
  zirdb_component_workbench PUBLIC "${PROJECT_SOURCE_DIR}/src"
                                   "${CMAKE_CURRENT_SOURCE_DIR}")
target_include_directories(zirdb_component_workbench SYSTEM
                           PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
target_link_libraries(
  zirdb_component_workbench
  PRIVATE zirdb_warnings zirdb_instrumentation
  PUBLIC "${ZIRDB_ODBC_LIBRARY}" "${ZIRDB_UUID_LIBRARY}" ${CMAKE_DL_LIBS})
# It is the library that is tested here, so it is built as the library is.
if(NOT ZIRDB_SANITIZE AND NOT ZIRDB_COVERAGE)
  target_compile_options(zirdb_component_workbench PRIVATE -O2)
endif()

# zirdb_workbench_program(name SOURCES file...): a GoogleTest program with the
# workbench built in.
function(zirdb_workbench_program name)
  cmake_parse_arguments(arg "" "" "SOURCES" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(
    ${name} PRIVATE zirdb_warnings zirdb_tests_instrumentation
                    zirdb_component_workbench GTest::gtest GTest::gtest_main)
endfunction()

include(component_frame.cmake)
include(component_recordset.cmake)
include(component_parameters.cmake)
include(component_costs.cmake)

# Connections and commands.
foreach(
  list component_connection component_command component_databases
       component_failures component_interference late_bound python)
  include(${list}.cmake OPTIONAL)
endforeach()
