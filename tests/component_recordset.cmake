# Recordsets with rows, from the component's workbench: the cursor, fields and
# their values, enumerators and forEach.

foreach(program component_recordset_test component_recordset_members_test
                component_recordset_errors_test component_fields_test
                component_fields_lifetime_test component_fields_members_test
                component_field_names_test component_field_values_test
                component_enumerator_test component_for_each_test
                component_for_each_interference_test)
  zirdb_workbench_program(${program} SOURCES ${program}.cpp)
  zirdb_discover(${program} LABELS component)
endforeach()
