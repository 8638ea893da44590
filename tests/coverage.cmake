# Ways through the library that no other subject leads to; coverage.sh found
# them.

zirdb_test_program(coverage_foreign_test SOURCES coverage_foreign_test.cpp)
zirdb_discover(coverage_foreign_test LABELS runtime component)

# It defines malloc, which all libraries must find in the program.
zirdb_workbench_program(
  coverage_letting_go_test SOURCES coverage_letting_go_test.cpp
                                   runtime_allocator.cpp)
set_target_properties(coverage_letting_go_test PROPERTIES ENABLE_EXPORTS ON)
zirdb_discover(coverage_letting_go_test LABELS component)
