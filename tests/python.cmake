# The contract as a foreign language sees it: Python drives the shared library
# through its layouts and vtable slots alone.

set(python_folder "${CMAKE_CURRENT_SOURCE_DIR}/python")
set(python_tests test_layout test_activation)
set(python_database_tests test_connection test_recordset test_command)
set(python_environment
    "ZIRDB_LIBRARY=$<TARGET_FILE:zirdb>"
    "ZIRDB_REGISTRY=${PROJECT_BINARY_DIR}/registry"
    # Leaves nothing in the source tree.
    PYTHONDONTWRITEBYTECODE=1)

if(NOT ZIRDB_SANITIZE)
  list(APPEND python_database_tests test_python_objects)
elseif(ZIRDB_SANITIZE MATCHES "thread" OR NOT CMAKE_CXX_COMPILER_ID STREQUAL
                                          "GNU")
  # Nothing here has two threads, and Clang's runtimes are linked statically
  # where there is no shared one.
  return()
else()
  # Objects made in Python stay out: UndefinedBehaviorSanitizer asks every
  # object for its C++ type, and these have none.

  # What the interpreter itself leaves at its end is not the library's.
  list(APPEND python_environment ASAN_OPTIONS=detect_leaks=0)
endif()

zirdb_sanitizer_preload(python_preload)
find_package(Python3 3.9 COMPONENTS Interpreter)

# zirdb_python_test(test LABELS label...): one file of tests/python.
function(zirdb_python_test test)
  cmake_parse_arguments(arg "" "" "LABELS" ${ARGN})
  set(script "")
  if("database" IN_LIST arg_LABELS)
    set(script "source '${CMAKE_CURRENT_SOURCE_DIR}/build_checks/need_sqlite.sh'
")
  endif()
  if(Python3_FOUND)
    string(APPEND script "LD_PRELOAD='${python_preload}' \
exec '${Python3_EXECUTABLE}' -X dev -m unittest -v ${test}")
  else()
    string(APPEND script "echo 'skipped: no Python 3.9' && exit 77")
  endif()
  string(REPLACE "test_" "" name ${test})
  zirdb_check(python.${name} "${arg_LABELS}" -c "${script}")
  set_tests_properties(
    python.${name}
    PROPERTIES TIMEOUT 120 WORKING_DIRECTORY "${python_folder}" ENVIRONMENT
                                             "${python_environment}")
endfunction()

foreach(test IN LISTS python_tests)
  zirdb_python_test(${test} LABELS component)
endforeach()
foreach(test IN LISTS python_database_tests)
  zirdb_python_test(${test} LABELS component database)
endforeach()
