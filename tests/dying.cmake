# Databases that die: servers of the tests' own, which they kill, and SQLite's
# files.

zirdb_test_program(dying_servers_test SOURCES dying_servers_test.cpp LIBRARIES
                   real_databases)
target_compile_definitions(
  dying_servers_test
  PRIVATE SERVERS_SCRIPT="${CMAKE_CURRENT_SOURCE_DIR}/support/servers.sh")

# zirdb_dying_server_test(name server filter label...): the tests of a driver as
# one, because they share a server. Where there is none they are all skipped.
function(zirdb_dying_server_test name server filter)
  set(environment
      "LC_ALL=C.UTF-8"
      "ODBCSYSINI=${servers_folder}"
      "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/support/leaks.supp:print_suppressions=0"
  )
  add_test(NAME ${name} COMMAND dying_servers_test "--gtest_filter=${filter}")
  set_tests_properties(
    ${name}
    PROPERTIES LABELS "${ARGN}"
               TIMEOUT 200
               SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]"
               FIXTURES_REQUIRED ${server}
               ENVIRONMENT "${environment}")
endfunction()
# Those that wait for somebody's patience to end, for a second each.
set(dying_patience "*OpeningBreaksOff*:*WaitsForALock*:*LeftIdle*")
foreach(pair PostgreSQL:postgres MariaDB:mariadb)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 driver)
  list(GET pair 1 server)
  zirdb_dying_server_test(
    dying_servers/${driver} ${server} "*/${driver}:-${dying_patience}" component
    database)
  if(NOT ZIRDB_SANITIZE AND NOT ZIRDB_COVERAGE)
    zirdb_dying_server_test(long/dying_servers/${driver} ${server}
                            "*/${driver}" slow component database)
  endif()
endforeach()

zirdb_test_program(dying_sqlite_test SOURCES dying_sqlite_test.cpp LIBRARIES
                   real_databases)
zirdb_discover(dying_sqlite_test LABELS component database)
