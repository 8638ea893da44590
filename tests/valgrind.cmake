# Memory as memcheck sees it: whole test programs under valgrind, a process each
# (build_checks/valgrind.sh). Those at the end are tests; scripts/reliability.sh
# runs all that are suitable. Instrumented programs look after themselves.
if(ZIRDB_SANITIZE OR ZIRDB_COVERAGE)
  return()
endif()

# ---------------------------------------------------------------------------
# All programs, for valgrind.sh
# ---------------------------------------------------------------------------

# They define malloc or operator new, in whose place memcheck puts its own: what
# they count or refuse would not happen. So do those with runtime_allocator.cpp.
set(valgrind_unsuitable
    odbc_allocation_failure_test_driver odbc_allocation_failure_test_stand_in)
# They measure time or memory, of which memcheck takes many times as much, or
# work in threads, which memcheck lets run one by one.
list(
  APPEND
  valgrind_unsuitable
  load_nesting_test
  load_sizes_databases_test
  load_sizes_test
  load_soak_databases_test
  load_soak_test
  load_threads_test)
# They wait for seconds only, for servers and processes that die or for signals.
list(
  APPEND
  valgrind_unsuitable
  component_databases_servers_test
  dying_servers_test
  misbehaving_processes_test
  misbehaving_signals_test)
# It unloads libraries with what they still hold: the error records of threads
# that go on, as it sets out to do, and whatever the driver manager keeps.
list(APPEND valgrind_unsuitable misbehaving_links_test)

# It compares the bytes between the members of a bound, which nobody writes.
set(valgrind_without "SafeArrayCopy.TheSourceIsLeftAsItIs")

# As the CTest tests have it. One locale serves all drivers.
set(valgrind_searched "LD_LIBRARY_PATH=${component_searched_folder}")
set(valgrind_databases "LC_ALL=C.UTF-8 ODBCSYSINI=${servers_folder}")

set(valgrind_list "")
get_property(
  programs
  DIRECTORY
  PROPERTY BUILDSYSTEM_TARGETS)
foreach(program IN LISTS programs)
  get_target_property(type ${program} TYPE)
  get_target_property(libraries ${program} LINK_LIBRARIES)
  if(NOT type STREQUAL "EXECUTABLE" OR NOT "GTest::gtest_main" IN_LIST libraries)
    continue()
  endif()
  get_target_property(sources ${program} SOURCES)
  if(program IN_LIST valgrind_unsuitable OR "runtime_allocator.cpp" IN_LIST sources)
    continue()
  endif()
  if("real_databases" IN_LIST libraries)
    set(rest "*:-${valgrind_without}:*InTheCLocale*\t${valgrind_databases}")
  else()
    set(rest "*:-${valgrind_without}\t${valgrind_searched}")
  endif()
  string(APPEND valgrind_list "$<TARGET_FILE:${program}>\t${rest}\n")
endforeach()
file(
  GENERATE
  OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/valgrind_programs"
  CONTENT "${valgrind_list}")

# ---------------------------------------------------------------------------
# Those that run as tests
# ---------------------------------------------------------------------------

# zirdb_valgrind(program [ONLY pattern] [WITHOUT pattern...]): the tests of a
# program that fit one pattern and none of the others. What is left out repeats
# one thing for every value there is, or for sizes that take memcheck seconds.
function(zirdb_valgrind program)
  cmake_parse_arguments(arg "" "ONLY" "WITHOUT" ${ARGN})
  if(NOT arg_ONLY)
    set(arg_ONLY "*")
  endif()
  string(REPLACE ";" ":" without "${arg_WITHOUT}")
  zirdb_check(valgrind.${program} slow
              "${CMAKE_CURRENT_SOURCE_DIR}/build_checks/valgrind.sh"
              $<TARGET_FILE:${program}> "${arg_ONLY}:-${valgrind_without}:${without}")
  set_tests_properties(valgrind.${program} PROPERTIES ENVIRONMENT
                                                      "${valgrind_searched}")
endfunction()

# Of the programs that exist once for the driver manager and once for its
# stand-in the second: the manager itself is in those with SQLite.
foreach(
  program
  component_activation_test
  component_careless_host_test
  component_command_sent_test_stand_in
  component_command_test
  component_connection_execute_test_stand_in
  component_connection_open_test_stand_in
  component_connection_record_test
  component_connection_results_test_stand_in
  component_connection_values_test_stand_in
  component_enumerator_test
  component_factory_test
  component_fields_lifetime_test
  component_fields_members_test
  component_fields_test
  component_for_each_interference_test
  component_for_each_test
  component_interference_by_hand_test
  component_interference_test_stand_in
  component_layout_test
  component_recordset_errors_test
  component_recordset_members_test
  coverage_foreign_test
  late_bound_test_stand_in
  odbc_exact_calls_test_stand_in
  odbc_execute_test_stand_in
  odbc_open_test_driver
  odbc_open_test_stand_in
  odbc_records_test
  odbc_write_back_test_stand_in
  runtime_activation_test
  runtime_arrays_test
  runtime_context_test
  runtime_identifiers_test
  runtime_layout_test
  runtime_owners_test
  runtime_strings_test
  runtime_threads_test
  runtime_variants_test
  scripted_smoke_test_driver)
  zirdb_valgrind(${program})
endforeach()

# For every value there is.
zirdb_valgrind(component_connection_dispatch_test_stand_in WITHOUT
               "*EveryShapeOfCall*")
zirdb_valgrind(component_connection_registry_test_stand_in WITHOUT
               "*EveryOrderOfRelease*" "*ALongHistory*")
zirdb_valgrind(component_dispatch_test WITHOUT "CallShapes.OfAClosedRecordset"
               "CallShapes.OfTheFieldsOfAClosedRecordset")
zirdb_valgrind(component_parameters_test WITHOUT "*Calls.OfEveryShape*"
               "*Calls.Outside*")
zirdb_valgrind(component_translation_test WITHOUT
               "*EveryValueUnderEveryDeclaredType" "*ReferencesStandFor*")
zirdb_valgrind(faults_odbc_test_stand_in ONLY
               "*EveryCallOf.*/PlainSelectBelowTheObjects")
zirdb_valgrind(misbehaving_callbacks_test WITHOUT "Reentering*")
zirdb_valgrind(misbehaving_pointers_test WITHOUT "*ChangeNoLateBoundAnswer")
zirdb_valgrind(odbc_hostile_input_test_stand_in WITHOUT "*EveryLeadByte*"
               "*EveryLaterByte*" "*EveryCodePoint*")
zirdb_valgrind(runtime_coercion_test WITHOUT "*NoOtherTargetExists")
zirdb_valgrind(runtime_converters_test WITHOUT "*Every*" "*Random*"
               "*Anywhere*")
zirdb_valgrind(runtime_dates_test WITHOUT "EveryDay.*")
zirdb_valgrind(runtime_operators_test WITHOUT "OfTypes/EveryPair.*")

# Needs a locale that few machines have: skipped, it would show all as skipped.
zirdb_valgrind(component_field_names_test WITHOUT
               "*MayHaveAnotherSmallFormOfI")

# For many rows, columns, pieces or parameters, or for long ones.
zirdb_valgrind(component_field_values_test WITHOUT "*OfALongText*"
               "*OfManyBytes*" "*OfManyRows*")
zirdb_valgrind(component_recordset_test WITHOUT "*RecordsetWalk.*")
zirdb_valgrind(
  odbc_binding_test_stand_in
  WITHOUT "*BuffersStayWhereTheyWereBound" "*EveryCombinationIsBound*"
          "*NeighboursOfEveryKind*")
zirdb_valgrind(
  odbc_fetch_test_stand_in
  WITHOUT "*Endless*"
          "*Thousands*"
          "*VeryManyPieces*"
          "*ShortPieces*"
          "*ManyColumns*"
          "*RowsComeInTheirOrder"
          "*ALongBlob*"
          "*OfAnyLength*"
          "*ByItsIndicatorBefore*")

# Through the real driver manager and driver.
zirdb_valgrind(
  component_databases_test
  ONLY "*/SQLite"
  WITHOUT "*Long*" "ScriptLifetimes.*Order*" "*HundredsRun*" "*EverySqlType*")
zirdb_valgrind(
  journeys_test
  ONLY "*/SQLite"
  WITHOUT "*Hundreds*" "*OfEveryLength*" "*AcrossTheEnd*" "*ALongLiteral*"
          "*EveryColumnType*")
