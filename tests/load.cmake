# Load: many threads, many rounds, big results. Long forms with the sizes that
# count are under the label "slow".

# A database in the test program, which must be found before the driver manager
# (support/load_database.h); and a count of the handles of the real one
# (support/load_handles.h), which must be found before it, too.
foreach(part database handles)
  add_library(load_${part} OBJECT support/load_${part}.cpp)
  target_include_directories(load_${part} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
  target_include_directories(load_${part} SYSTEM
                             PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
  target_link_libraries(load_${part} PRIVATE zirdb_warnings
                                             zirdb_tests_instrumentation)
endforeach()
# What a cell costs the library must not drown in what it costs this.
target_compile_options(load_database PRIVATE -O2)

# The tests that have a long form.
set(load_sizes_long "*Result*:*BigText*:-*Cost*")
set(load_sizes_databases_long "*ABigText*")
set(load_soak_long "*")
set(load_soak_databases_long "*")

foreach(part sizes soak)
  zirdb_test_program(load_${part}_test SOURCES load_${part}_test.cpp LIBRARIES
                     load_database)
  zirdb_test_program(
    load_${part}_databases_test
    SOURCES load_${part}_databases_test.cpp
    LIBRARIES real_databases load_handles ${CMAKE_DL_LIBS})
  foreach(each ${part} ${part}_databases)
    set_target_properties(load_${each}_test PROPERTIES ENABLE_EXPORTS ON)
    zirdb_discover(load_${each}_test LABELS component load)
    zirdb_discover_long(load_${each}_test FILTER "${load_${each}_long}" LABELS
                        component load)
  endforeach()
endforeach()

# What they expect of the time is exact: nothing may run beside them.
zirdb_discover_long(
  load_sizes_test
  LIST load_sizes_cost_long
  FILTER "*Cost*"
  LABELS component load
  PROPERTIES RUN_SERIAL TRUE)

zirdb_scripted_test(load_columns_test LABELS component load SOURCES
                    load_columns_test.cpp)

zirdb_test_program(load_nesting_test SOURCES load_nesting_test.cpp LIBRARIES
                   load_database)
set_target_properties(load_nesting_test PROPERTIES ENABLE_EXPORTS ON)
zirdb_discover(load_nesting_test LABELS component load)
zirdb_discover_long(load_nesting_test FILTER "*Arrays*:*HoldEachOther*" LABELS
                    component load)

# Sixteen threads. Servers, locale and driver table as in
# component_databases.cmake.
zirdb_test_program(
  load_threads_test
  SOURCES load_threads_test.cpp
  LIBRARIES real_databases load_handles ${CMAKE_DL_LIBS})
set_target_properties(load_threads_test PROPERTIES ENABLE_EXPORTS ON)
set(load_postgres
    LABELS
    component
    database
    load
    threads
    ENVIRONMENT
    "LC_ALL=C.UTF-8"
    "ODBCSYSINI=${servers_folder}"
    "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/support/leaks.supp:print_suppressions=0"
    PROPERTIES
    FIXTURES_REQUIRED
    postgres)
zirdb_discover(
  load_threads_test
  LIST load_threads_sqlite
  FILTER "*/SQLite"
  LABELS component database load threads)
zirdb_discover(load_threads_test LIST load_threads_postgres FILTER
               "*/PostgreSQL" ${load_postgres})
zirdb_discover_long(
  load_threads_test
  LIST load_threads_sqlite_long
  FILTER "*/SQLite"
  LABELS component database load threads)
zirdb_discover_long(load_threads_test LIST load_threads_postgres_long FILTER
                    "*/PostgreSQL" ${load_postgres})
