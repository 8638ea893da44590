# Journeys: the ODBC layer through the real driver manager and real drivers, on
# SQLite (embedded) and on private servers of PostgreSQL and MariaDB, which two
# fixtures start and stop (support/servers.sh).

set(servers_folder "${CMAKE_CURRENT_BINARY_DIR}/servers")
foreach(server postgres mariadb)
  foreach(action start stop)
    add_test(NAME ${server}.${action}
             COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/support/servers.sh"
                     ${action} ${server} "${servers_folder}")
    set_tests_properties(
      ${server}.${action} PROPERTIES LABELS "odbc;database" TIMEOUT 150
                                     SKIP_RETURN_CODE 77)
  endforeach()
  set_tests_properties(${server}.start PROPERTIES FIXTURES_SETUP ${server})
  set_tests_properties(${server}.stop PROPERTIES FIXTURES_CLEANUP ${server})
endforeach()

add_library(real_databases OBJECT support/database.cpp)
target_include_directories(real_databases PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
target_compile_definitions(real_databases
                           PRIVATE ZIRDB_SERVERS_DIR="${servers_folder}")
target_link_libraries(
  real_databases
  PUBLIC zirdb::zirdb GTest::gtest
  PRIVATE zirdb_warnings zirdb_instrumentation)

zirdb_test_program(
  journeys_test
  SOURCES journeys_columns_test.cpp
          journeys_connections_test.cpp
          journeys_procedures_test.cpp
          journeys_statements_test.cpp
          journeys_texts_test.cpp
          journeys_values_test.cpp
  LIBRARIES real_databases)
target_include_directories(journeys_test SYSTEM
                           PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")

# Each driver's tests apart: only those of a server wait for it.
zirdb_discover(
  journeys_test
  LIST journeys_sqlite
  FILTER "*/SQLite"
  LABELS odbc database)
# PostgreSQL's driver converts wide text through the process's locale, and as
# Debian registers it keeps a log file per process: hence a locale and a driver
# table of our own.
zirdb_discover(
  journeys_test
  LIST journeys_postgres
  FILTER "*/PostgreSQL:-*InTheCLocale*"
  LABELS odbc database
  ENVIRONMENT
    "LC_ALL=C.UTF-8"
    "ODBCSYSINI=${servers_folder}"
    "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/support/leaks.supp:print_suppressions=0"
  PROPERTIES FIXTURES_REQUIRED postgres)
zirdb_discover(
  journeys_test
  LIST journeys_postgres_c_locale
  FILTER "*InTheCLocale*"
  LABELS odbc database
  ENVIRONMENT "LC_ALL=C" "ODBCSYSINI=${servers_folder}"
  PROPERTIES FIXTURES_REQUIRED postgres)
zirdb_discover(
  journeys_test
  LIST journeys_mariadb
  FILTER "*/MariaDB"
  LABELS odbc database
  PROPERTIES FIXTURES_REQUIRED mariadb)

zirdb_test_program(odbc_threads_test SOURCES odbc_threads_test.cpp LIBRARIES
                   real_databases)
zirdb_discover(odbc_threads_test LABELS odbc threads)
