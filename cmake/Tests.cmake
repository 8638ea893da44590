# How a GoogleTest program becomes CTest tests.
include(GoogleTest)

# Collects the programs that also run under ThreadSanitizer.
add_custom_target(thread_tests)

# zirdb_discover(program LABELS label... [PREFIX text] [FILTER pattern]
#                [LIST name] [ENVIRONMENT name=value...]
#                [PROPERTIES property value...])
# Each test of a program, or of the part that the filter selects, becomes a
# CTest test. Two parts of one program need a LIST name each.
function(zirdb_discover program)
  cmake_parse_arguments(arg "" "PREFIX;FILTER;LIST" "LABELS;ENVIRONMENT;PROPERTIES"
                        ${ARGN})
  if(NOT arg_LIST)
    set(arg_LIST ${program}_TESTS)
  endif()
  gtest_discover_tests(
    ${program}
    TEST_PREFIX "${arg_PREFIX}"
    TEST_FILTER "${arg_FILTER}"
    TEST_LIST ${arg_LIST} NO_PRETTY_VALUES
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT 120 ${arg_PROPERTIES})
  # Lists are set when CTest reads the tests: gtest_discover_tests would take
  # them apart.
  set(script "${CMAKE_CURRENT_BINARY_DIR}/${arg_LIST}_labels.cmake")
  file(
    WRITE "${script}"
    "foreach(test IN LISTS ${arg_LIST})
  set_tests_properties(
    \"\${test}\" PROPERTIES LABELS \"${arg_LABELS}\"
    ENVIRONMENT \"${arg_ENVIRONMENT}\")
endforeach()
")
  set_property(
    DIRECTORY
    APPEND
    PROPERTY TEST_INCLUDE_FILES "${script}")
  if("threads" IN_LIST arg_LABELS)
    add_dependencies(thread_tests ${program})
  endif()
endfunction()

# zirdb_discover_long(program LABELS label... [PREFIX text] [FILTER pattern]
#                     [LIST name] [ENVIRONMENT name=value...]
#                     [PROPERTIES property value...])
# The long form (support/long_form.h) of a program's tests, "long/...", besides
# what zirdb_discover makes of them. Only of a plain build: sanitizers would make
# hours of it.
function(zirdb_discover_long program)
  if(ZIRDB_SANITIZE OR ZIRDB_COVERAGE)
    return()
  endif()
  cmake_parse_arguments(arg "" "PREFIX;FILTER;LIST"
                        "LABELS;ENVIRONMENT;PROPERTIES" ${ARGN})
  if(NOT arg_LIST)
    set(arg_LIST ${program}_LONG_TESTS)
  endif()
  zirdb_discover(
    ${program}
    PREFIX "long/${arg_PREFIX}"
    FILTER "${arg_FILTER}"
    LIST ${arg_LIST}
    LABELS slow ${arg_LABELS}
    ENVIRONMENT "ZIRDB_LONG=1" ${arg_ENVIRONMENT}
    PROPERTIES TIMEOUT 600 ${arg_PROPERTIES})
endfunction()

# zirdb_sanitizer_preload(variable): what LD_PRELOAD must be for an interpreter
# that loads the library. Its sanitizers have to be there before the interpreter,
# which was built without, and so has the C++ runtime whose exceptions they look
# at. Empty in a plain build.
function(zirdb_sanitizer_preload variable)
  set(preload "")
  if(ZIRDB_SANITIZE)
    set(runtimes libstdc++.so)
    if(ZIRDB_SANITIZE MATCHES "undefined")
      list(PREPEND runtimes libubsan.so)
    endif()
    if(ZIRDB_SANITIZE MATCHES "address")
      list(PREPEND runtimes libasan.so)
    endif()
    foreach(runtime IN LISTS runtimes)
      execute_process(
        COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=${runtime}
        OUTPUT_VARIABLE path
        OUTPUT_STRIP_TRAILING_WHITESPACE)
      string(APPEND preload "${path}:")
    endforeach()
  endif()
  set(${variable} "${preload}" PARENT_SCOPE)
endfunction()
