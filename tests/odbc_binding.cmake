# Parameters of the ODBC layer: how they are bound and read back, and what
# happens to them when something is wrong.

zirdb_scripted_test(odbc_binding_test SOURCES odbc_binding_test.cpp)
zirdb_scripted_test(odbc_write_back_test SOURCES odbc_write_back_test.cpp)
zirdb_scripted_test(odbc_hostile_input_test SOURCES odbc_hostile_input_test.cpp)

# Replaces operator new for the whole process. The driver tells the program when
# it is at work, so it must find the program's function.
zirdb_scripted_test(odbc_allocation_failure_test SOURCES
                    odbc_allocation_failure_test.cpp)
set_target_properties(odbc_allocation_failure_test_driver
                      PROPERTIES ENABLE_EXPORTS ON)
