# The command line program. Python drives it as its users do, and reads what it
# prints with the readers that come with Python.
if(NOT TARGET zirdb_tool)
  return()
endif()

# Libraries that are registered as drivers, in a folder of their own.
set(tools_samples "${CMAKE_CURRENT_BINARY_DIR}/tools")
foreach(fate loads crashes hangs)
  add_library(sample_driver_${fate} MODULE tools/sample_driver.cpp)
  target_compile_definitions(sample_driver_${fate}
                             PRIVATE SAMPLE_DRIVER="${fate}")
  target_link_libraries(sample_driver_${fate} PRIVATE zirdb_warnings)
  set_target_properties(
    sample_driver_${fate}
    PROPERTIES PREFIX "" OUTPUT_NAME ${fate} LIBRARY_OUTPUT_DIRECTORY
                                             "${tools_samples}")
endforeach()

find_package(Python3 3.9 COMPONENTS Interpreter)

# zirdb_tool_test(test LABELS label...): one file of tests/tools.
function(zirdb_tool_test test)
  cmake_parse_arguments(arg "" "" "LABELS" ${ARGN})
  set(script "")
  if("database" IN_LIST arg_LABELS)
    set(script "source '${CMAKE_CURRENT_SOURCE_DIR}/build_checks/need_sqlite.sh'
")
  endif()
  if(Python3_FOUND)
    string(APPEND script "exec '${Python3_EXECUTABLE}' -m unittest -v ${test}")
  else()
    string(APPEND script "echo 'skipped: no Python 3.9' && exit 77")
  endif()
  string(REPLACE "test_" "" name ${test})
  zirdb_check(tools.${name} "${arg_LABELS}" -c "${script}")
  set_tests_properties(
    tools.${name}
    PROPERTIES
      TIMEOUT
      120
      WORKING_DIRECTORY
      "${CMAKE_CURRENT_SOURCE_DIR}/tools"
      ENVIRONMENT
      "ZIRDB_TOOL=$<TARGET_FILE:zirdb_tool>;ZIRDB_LIBRARY=$<TARGET_FILE:zirdb>;\
ZIRDB_SAMPLES=${tools_samples};ZIRDB_VERSION=${PROJECT_VERSION};\
PYTHONDONTWRITEBYTECODE=1")
endfunction()

zirdb_tool_test(test_usage LABELS tools)
zirdb_tool_test(test_doctor LABELS tools)
zirdb_tool_test(test_query LABELS tools database)
zirdb_tool_test(test_trial LABELS tools database)
zirdb_check(tools.manual_page tools
            "${CMAKE_CURRENT_SOURCE_DIR}/tools/manual_page.sh"
            "${PROJECT_SOURCE_DIR}/tools/zirdb/zirdb.1")
