# The Node.js host, driven by scripts: each file of tests/host is one test.
# foreign.test.js has a component library of its own, see below.

set(host_folder "${CMAKE_CURRENT_SOURCE_DIR}/host")
set(host_tests
    anything
    arguments
    callbacks
    errors
    inspection
    iteration
    lifetime
    members
    memory
    nesting
    processes
    values_back
    values_sent
    workers)

set(host_environment "")
if(ZIRDB_SANITIZE MATCHES "thread"
   OR (ZIRDB_SANITIZE AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU"))
  # Node.js has threads of its own, which nobody instrumented; and Clang's
  # runtimes are linked statically where there is no shared one.
  return()
elseif(ZIRDB_SANITIZE)
  # What Node.js itself leaves at its end is not the library's, and its code
  # generator handles faults of its own.
  set(host_environment "HOST_IS_SANITIZED=1"
                       "ASAN_OPTIONS=detect_leaks=0:handle_segv=0"
                       "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1")
endif()

zirdb_sanitizer_preload(host_preload)

if(NOT TARGET zirdb_node)
  zirdb_check(host.all "host" -c
              "echo 'skipped: no Node.js 18, or no node_api.h' && exit 77")
  return()
endif()
foreach(name IN LISTS host_tests)
  zirdb_check(
    host.${name} "host;database" -c
    "source '${CMAKE_CURRENT_SOURCE_DIR}/build_checks/need_sqlite.sh'
unset REGISTRY NODE_OPTIONS
LD_PRELOAD='${host_preload}' NODE_PATH='${PROJECT_BINARY_DIR}/node_modules' \
exec '${ZIRDB_NODE}' --expose-gc --test-reporter=spec '${name}.test.js'")
  set_tests_properties(
    host.${name}
    PROPERTIES TIMEOUT 300 WORKING_DIRECTORY "${host_folder}" ENVIRONMENT
                                              "${host_environment}")
endforeach()

# A component library of its own, in a registry together with this one.
set(host_registry "${PROJECT_BINARY_DIR}/tests/host_registry")
file(MAKE_DIRECTORY "${host_registry}")
file(CREATE_LINK "${PROJECT_BINARY_DIR}/registry/ZIRDB.so"
     "${host_registry}/ZIRDB.so" SYMBOLIC)
add_library(host_component MODULE host_component/box.cpp
                                  host_component/values.cpp)
target_link_libraries(host_component PRIVATE zirdb_warnings
                                             zirdb_instrumentation zirdb::zirdb)
set_target_properties(
  host_component PROPERTIES PREFIX "" OUTPUT_NAME ECHO LIBRARY_OUTPUT_DIRECTORY
                                                       "${host_registry}")
zirdb_check(
  host.foreign host -c
  "unset NODE_OPTIONS
LD_PRELOAD='${host_preload}' NODE_PATH='${PROJECT_BINARY_DIR}/node_modules' \
exec '${ZIRDB_NODE}' --expose-gc --test-reporter=spec foreign.test.js")
set_tests_properties(
  host.foreign
  PROPERTIES TIMEOUT 300 WORKING_DIRECTORY "${host_folder}" ENVIRONMENT
             "REGISTRY=${host_registry};${host_environment}")
