# Conversions, dates and operators of the runtime.

zirdb_test_program(runtime_coercion_test SOURCES runtime_coercion_test.cpp)
zirdb_discover(runtime_coercion_test LABELS runtime)
zirdb_test_program(runtime_dates_test SOURCES runtime_dates_test.cpp)
zirdb_discover(runtime_dates_test LABELS runtime)
zirdb_test_program(runtime_operators_test SOURCES runtime_operators_test.cpp)
zirdb_discover(runtime_operators_test LABELS runtime)
