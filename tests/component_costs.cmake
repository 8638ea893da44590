# What the component asks the allocator for, and what it does without.

# These define malloc, which all libraries must find in the program.
foreach(
  program
  component_costs_test component_allocation_failure_test
  component_allocation_failure_errors_test
  component_allocation_failure_translation_test)
  zirdb_workbench_program(
    ${program} SOURCES ${program}.cpp runtime_allocator.cpp)
  set_target_properties(${program} PROPERTIES ENABLE_EXPORTS ON)
  zirdb_discover(${program} LABELS component)
endforeach()
