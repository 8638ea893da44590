# The component's frame, through the shared library as hosts meet it: entry
# points and factories, late binding, identifiers and vtables, activation from
# the build's own registry folder, threads.

foreach(program component_factory_test component_dispatch_test)
  zirdb_test_program(${program} SOURCES ${program}.cpp)
  zirdb_discover(${program} LABELS component)
endforeach()

# Looks its symbols up by name.
zirdb_test_program(component_layout_test SOURCES component_layout_test.cpp
                   LIBRARIES ${CMAKE_DL_LIBS})
zirdb_discover(component_layout_test LABELS component)

zirdb_test_program(component_activation_test
                   SOURCES component_activation_test.cpp
                   LIBRARIES ${CMAKE_DL_LIBS})
target_compile_definitions(
  component_activation_test
  PRIVATE REGISTRY_FOLDER="${PROJECT_BINARY_DIR}/registry")
zirdb_discover(component_activation_test LABELS component)

zirdb_test_program(component_threads_test SOURCES component_threads_test.cpp)
zirdb_discover(component_threads_test LABELS component threads)

# References in a circle, objects let go while they are asked.
zirdb_workbench_program(component_careless_host_test
                        SOURCES component_careless_host_test.cpp)
zirdb_discover(component_careless_host_test LABELS component)

# Loads the library by itself.
add_executable(component_thread_keys_test component_thread_keys_test.cpp)
target_include_directories(component_thread_keys_test
                           PRIVATE "${PROJECT_SOURCE_DIR}/src")
target_compile_definitions(component_thread_keys_test
                           PRIVATE LIBRARY="$<TARGET_FILE:zirdb>")
target_link_libraries(
  component_thread_keys_test PRIVATE zirdb_warnings zirdb_instrumentation
                                     ${CMAKE_DL_LIBS} GTest::gtest
                                     GTest::gtest_main)
add_dependencies(component_thread_keys_test zirdb)
zirdb_discover(component_thread_keys_test LABELS component)
