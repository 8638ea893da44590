# Databases that die: servers of the tests' own, which they kill, and SQLite's
# files.

zirdb_test_program(dying_servers_test SOURCES dying_servers_test.cpp LIBRARIES
                   real_databases)
target_compile_definitions(
  dying_servers_test
  PRIVATE SERVERS_SCRIPT="${CMAKE_CURRENT_SOURCE_DIR}/support/servers.sh")

# Runs what follows, tests all of which may be skipped: 77 when they are. No
# tests are a failure, and so is one among the skipped.
set(dying_run
    [=[
"$@" | awk '
  { print; fflush() }
  index($0, "[       OK ]") == 1 { passed = 1 }
  index($0, "[  SKIPPED ]") == 1 { skipped = 1 }
  END { exit passed ? 0 : skipped ? 77 : 3 }'
codes=("${PIPESTATUS[@]}")
[[ ${codes[0]} -eq 0 ]] || exit "${codes[0]}"
exit "${codes[1]}"
]=])

# zirdb_dying_server_test(name server filter label...): the tests of a driver as
# one, because they share a server. Where there is none they are all skipped.
function(zirdb_dying_server_test name server filter)
  set(environment
      "LC_ALL=C.UTF-8"
      "ODBCSYSINI=${servers_folder}"
      "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/support/leaks.supp:print_suppressions=0"
  )
  add_test(NAME ${name}
           COMMAND bash -c "${dying_run}" run
                   $<TARGET_FILE:dying_servers_test> "--gtest_filter=${filter}")
  set_tests_properties(
    ${name}
    PROPERTIES LABELS "${ARGN}"
               TIMEOUT 200
               SKIP_RETURN_CODE 77
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
