# Strings, variants and arrays of the runtime, the owners of its header, and the
# layouts that hosts were compiled against.

foreach(program runtime_strings_test runtime_converters_test
                runtime_variants_test runtime_arrays_test
                runtime_nested_arrays_test runtime_owners_test)
  zirdb_test_program(${program} SOURCES ${program}.cpp)
  zirdb_discover(${program} LABELS runtime)
endforeach()

# Looks its symbols up by name.
zirdb_test_program(runtime_layout_test SOURCES runtime_layout_test.cpp
                   LIBRARIES ${CMAKE_DL_LIBS})
zirdb_discover(runtime_layout_test LABELS runtime)
