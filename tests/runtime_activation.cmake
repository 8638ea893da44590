# Activation, identifiers, object context, threads and lack of memory of the
# runtime, with the component libraries that activation is tried on.

set(component_folder "${PROJECT_BINARY_DIR}/tests/component_fixture")
# The loader looks here because of LD_LIBRARY_PATH; the tests put links into it.
set(component_searched_folder "${component_folder}/searched")
file(MAKE_DIRECTORY "${component_searched_folder}")

add_custom_target(component_fixture)
foreach(
  kind
  complete
  without_entry_point
  failing
  without_factory
  unreplaced
  refusing
  unresolved)
  set(module component_${kind})
  add_library(${module} MODULE component_fixture/${kind}.cpp)
  target_link_libraries(${module} PRIVATE zirdb_warnings zirdb_instrumentation)
  if(NOT kind STREQUAL "without_entry_point")
    target_link_libraries(${module} PRIVATE zirdb::zirdb)
  endif()
  set_target_properties(
    ${module} PROPERTIES PREFIX "" LIBRARY_OUTPUT_DIRECTORY
                                   "${component_folder}")
  add_dependencies(component_fixture ${module})
endforeach()
# The others must not depend on when their functions are looked up.
target_link_options(component_unresolved PRIVATE LINKER:-z,lazy)

# zirdb_activation_test(name [LABELS label...]): tests/name.cpp, which may
# activate the component libraries.
function(zirdb_activation_test name)
  cmake_parse_arguments(arg "" "" "LABELS" ${ARGN})
  zirdb_test_program(${name} SOURCES ${name}.cpp LIBRARIES ${CMAKE_DL_LIBS})
  target_compile_definitions(
    ${name}
    PRIVATE COMPONENT_FOLDER="${component_folder}"
            COMPONENT_SEARCHED_FOLDER="${component_searched_folder}")
  add_dependencies(${name} component_fixture)
  zirdb_discover(
    ${name} LABELS runtime ${arg_LABELS} ENVIRONMENT
    LD_LIBRARY_PATH=${component_searched_folder})
endfunction()

zirdb_activation_test(runtime_activation_test)
# Has an entry point of its own, which must not be taken for a library's.
set_target_properties(runtime_activation_test PROPERTIES ENABLE_EXPORTS ON)
zirdb_activation_test(runtime_identifiers_test)
zirdb_activation_test(runtime_context_test)
zirdb_activation_test(runtime_threads_test LABELS threads)
# These define malloc, which all libraries must find in the program.
foreach(name runtime_requests_test runtime_allocation_failure_test)
  zirdb_activation_test(${name})
  target_sources(${name} PRIVATE runtime_allocator.cpp)
  set_target_properties(${name} PROPERTIES ENABLE_EXPORTS ON)
endforeach()
