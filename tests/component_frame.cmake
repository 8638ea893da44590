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
