# Parameters: the objects that scripts see, and the way of their values to the
# database and back.

zirdb_workbench_program(
  component_parameters_test
  SOURCES component_parameter_test.cpp component_parameter_late_bound_test.cpp
          component_parameters_test.cpp component_parameters_late_bound_test.cpp
          component_foreign_parameter_test.cpp component_stranger.cpp)
set_source_files_properties(component_stranger.cpp PROPERTIES COMPILE_OPTIONS
                                                              -fno-rtti)
if(ZIRDB_SANITIZE)
  # UndefinedBehaviorSanitizer asks every object for its type.
  set(parameters_filter "-ForeignParameterWithoutTypeInformation.*")
  set_property(
    SOURCE component_stranger.cpp
    APPEND
    PROPERTY COMPILE_OPTIONS -fno-sanitize=vptr)
else()
  set(parameters_filter "*")
endif()
zirdb_discover(component_parameters_test LABELS component FILTER
               ${parameters_filter})

zirdb_workbench_program(
  component_translation_test
  SOURCES component_conversions_test.cpp component_translation_test.cpp
          component_write_back_test.cpp)
zirdb_discover(component_translation_test LABELS component)
