# Connections, by either road, over the scripted database.

foreach(part open execute results dispatch values registry)
  zirdb_scripted_test(
    component_connection_${part}_test LABELS component SOURCES
    component_connection_${part}_test.cpp)
endforeach()

zirdb_scripted_test(
  component_connection_threads_test LABELS component threads SOURCES
  component_connection_threads_test.cpp)

# Has a database of its own, which must be found before the driver manager.
zirdb_test_program(component_connection_costs_test SOURCES
                   component_connection_costs_test.cpp)
target_include_directories(component_connection_costs_test SYSTEM
                           PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
set_target_properties(component_connection_costs_test PROPERTIES ENABLE_EXPORTS
                                                                 ON)
# Measures time, of which neighbours that fill the caches take their share.
zirdb_discover(component_connection_costs_test LABELS component PROPERTIES
               RUN_SERIAL ON)

zirdb_workbench_program(component_connection_record_test SOURCES
                        component_connection_record_test.cpp)
zirdb_discover(component_connection_record_test LABELS component)
