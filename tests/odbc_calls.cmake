# Connections, executions, columns and cells, against the scripted database.

zirdb_test_program(odbc_records_test SOURCES odbc_records_test.cpp)
zirdb_discover(odbc_records_test LABELS odbc)
zirdb_scripted_test(odbc_open_test SOURCES odbc_open_test.cpp)
zirdb_scripted_test(odbc_execute_test SOURCES odbc_execute_test.cpp)
zirdb_scripted_test(odbc_fetch_test SOURCES odbc_fetch_test.cpp)
zirdb_scripted_test(odbc_exact_calls_test STAND_IN_ONLY SOURCES
                    odbc_exact_calls_test.cpp)
