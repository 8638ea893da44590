# The journeys again, as scripts make them: the objects, late-bound, on SQLite,
# PostgreSQL and MariaDB. Servers, locale and driver table as for the journeys
# of the ODBC layer (journeys.cmake).

# zirdb_database_test(name LABELS label... SOURCES file...): a program whose
# tests carry a driver's name at their end; only those of a server wait for it.
function(zirdb_database_test name)
  cmake_parse_arguments(arg "" "" "LABELS;SOURCES" ${ARGN})
  zirdb_test_program(${name} SOURCES ${arg_SOURCES} LIBRARIES real_databases)
  target_compile_definitions(
    ${name} PRIVATE SERVERS_SCRIPT="${CMAKE_CURRENT_SOURCE_DIR}/support/servers.sh")
  zirdb_discover(
    ${name}
    LIST ${name}_sqlite
    FILTER "*/SQLite"
    LABELS ${arg_LABELS})
  zirdb_discover(
    ${name}
    LIST ${name}_postgres
    FILTER "*/PostgreSQL:-*InTheCLocale*"
    LABELS ${arg_LABELS}
    ENVIRONMENT
      "LC_ALL=C.UTF-8"
      "ODBCSYSINI=${servers_folder}"
      "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/support/leaks.supp:print_suppressions=0"
    PROPERTIES FIXTURES_REQUIRED postgres)
  zirdb_discover(
    ${name}
    LIST ${name}_mariadb
    FILTER "*/MariaDB"
    LABELS ${arg_LABELS}
    PROPERTIES FIXTURES_REQUIRED mariadb)
endfunction()

zirdb_database_test(
  component_databases_test
  LABELS component database
  SOURCES component_databases_columns_test.cpp
          component_databases_connections_test.cpp
          component_databases_lifetimes_test.cpp
          component_databases_procedures_test.cpp
          component_databases_values_test.cpp
          component_databases_walks_test.cpp)
zirdb_discover(
  component_databases_test
  LIST component_databases_c_locale
  FILTER "*InTheCLocale*"
  LABELS component database
  ENVIRONMENT "LC_ALL=C" "ODBCSYSINI=${servers_folder}"
  PROPERTIES FIXTURES_REQUIRED postgres)
# Each test runs a server of its own besides.
zirdb_database_test(component_databases_servers_test LABELS component database
                    SOURCES component_databases_servers_test.cpp)
zirdb_database_test(component_databases_threads_test LABELS component database
                    threads SOURCES component_databases_threads_test.cpp)
