# Fuzz targets: libFuzzer's programs, compiled by clang with the library and the
# sanitizers in them, whatever compiles the rest. Each runs for some seconds as
# a test; scripts/fuzz.sh runs them for longer.

# Those that need the runtime alone, and those that need the whole library and a
# double of the ODBC driver manager.
set(fuzz_runtime_targets
    clsid_from_prog_id
    converters
    operators
    safearray
    var_date_from_str
    variant_change_type)
set(fuzz_component_targets connection_strings invoke odbc_fetch)
set(fuzz_targets ${fuzz_runtime_targets} ${fuzz_component_targets})
set(fuzz_seconds 20)

# Compiled by nobody: this is how clang-tidy learns how they would be.
set(fuzz_sources ${fuzz_targets} odbc_double)
list(TRANSFORM fuzz_sources REPLACE "(.+)" "fuzz/\\1.cpp")
add_library(fuzz_sources OBJECT EXCLUDE_FROM_ALL ${fuzz_sources})
target_include_directories(fuzz_sources PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
target_include_directories(fuzz_sources SYSTEM
                           PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
target_link_libraries(fuzz_sources PRIVATE zirdb_warnings zirdb::zirdb)

zirdb_scripted_test(fuzz_finds_test LABELS component SOURCES
                    fuzz_finds_test.cpp)

# They bring sanitizers of their own, and once is enough.
if(ZIRDB_SANITIZE OR ZIRDB_COVERAGE)
  return()
endif()

set(fuzz_folder "${CMAKE_CURRENT_BINARY_DIR}/fuzz")
file(MAKE_DIRECTORY "${fuzz_folder}")
set(fuzz_sanitizers -fsanitize=address,undefined,float-cast-overflow
                    -fno-sanitize-recover=all)

# Whether there is a clang++ that can build one. Asked at every configuration:
# its runtime is a package of its own, which comes and goes.
find_program(ZIRDB_CLANGXX clang++)
set(fuzz_problem "")
if(NOT ZIRDB_CLANGXX)
  set(fuzz_problem "no clang++")
else()
  file(
    WRITE "${fuzz_folder}/probe.cpp"
    "extern \"C\" int LLVMFuzzerTestOneInput(const unsigned char*,"
    " unsigned long) { return 0; }\n")
  execute_process(
    COMMAND "${ZIRDB_CLANGXX}" -fsanitize=fuzzer ${fuzz_sanitizers} probe.cpp
            -o probe
    WORKING_DIRECTORY "${fuzz_folder}"
    RESULT_VARIABLE fuzz_probe
    OUTPUT_QUIET ERROR_QUIET)
  if(NOT fuzz_probe EQUAL 0)
    set(fuzz_problem "${ZIRDB_CLANGXX} cannot link a fuzz target")
  endif()
endif()

if(NOT fuzz_problem)
  set(fuzz_compile
      "${ZIRDB_CLANGXX}"
      -std=c++17
      -O1
      -g
      ${fuzz_sanitizers}
      "-I${PROJECT_SOURCE_DIR}/src"
      "-I${CMAKE_CURRENT_SOURCE_DIR}"
      "$<TARGET_PROPERTY:zirdb_warnings,INTERFACE_COMPILE_OPTIONS>")

  if(NOT ZIRDB_ODBC_INCLUDE_DIR IN_LIST CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES)
    list(APPEND fuzz_compile "-I${ZIRDB_ODBC_INCLUDE_DIR}")
  endif()

  # The library once, for all of them, and the double, which is no subject.
  function(add_fuzz_object name source)
    add_custom_command(
      OUTPUT "${fuzz_folder}/${name}.o"
      COMMAND ${CMAKE_CXX_COMPILER_LAUNCHER} ${fuzz_compile} ${ARGN} -MD -MF ${name}.d -MT
              "${fuzz_folder}/${name}.o" -c "${source}" -o ${name}.o
      DEPENDS "${source}"
      DEPFILE "${fuzz_folder}/${name}.d"
      WORKING_DIRECTORY "${fuzz_folder}"
      COMMENT "Building ${name} for the fuzz targets"
      COMMAND_EXPAND_LISTS VERBATIM)
  endfunction()
  foreach(name IN ITEMS zir zirdb_odbc zirdb)
    add_fuzz_object(${name} "${PROJECT_SOURCE_DIR}/src/${name}.cpp"
                    -fsanitize=fuzzer-no-link)
  endforeach()
  add_fuzz_object(odbc_double "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/odbc_double.cpp")

  set(fuzz_programs ${fuzz_targets})
  list(TRANSFORM fuzz_programs PREPEND "${fuzz_folder}/fuzz_")
  foreach(target IN LISTS fuzz_targets)
    set(objects "${fuzz_folder}/zir.o")
    if(target IN_LIST fuzz_component_targets)
      foreach(name IN ITEMS zirdb_odbc zirdb odbc_double)
        list(APPEND objects "${fuzz_folder}/${name}.o")
      endforeach()
    endif()
    add_custom_command(
      OUTPUT "${fuzz_folder}/fuzz_${target}"
      COMMAND
        ${fuzz_compile} -fsanitize=fuzzer -MD -MF ${target}.d -MT
        "${fuzz_folder}/fuzz_${target}"
        "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/${target}.cpp" ${objects}
        "${ZIRDB_UUID_LIBRARY}" -ldl -o fuzz_${target}
      DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/${target}.cpp" ${objects}
      DEPFILE "${fuzz_folder}/${target}.d"
      WORKING_DIRECTORY "${fuzz_folder}"
      COMMENT "Building the fuzz target ${target}"
      COMMAND_EXPAND_LISTS VERBATIM)
  endforeach()
  add_custom_target(fuzz_programs ALL DEPENDS ${fuzz_programs})
endif()

if(fuzz_problem)
  message(STATUS "No fuzz targets: ${fuzz_problem}")
endif()
foreach(target IN LISTS fuzz_targets)
  if(fuzz_problem)
    add_test(NAME fuzz.${target}
             COMMAND bash -c "echo 'skipped: ${fuzz_problem}'; exit 77")
  else()
    add_test(
      NAME fuzz.${target}
      COMMAND
        bash "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/run.sh"
        "${fuzz_folder}/fuzz_${target}"
        "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/seeds/${target}"
        "${fuzz_folder}/finds/${target}" ${fuzz_seconds})
  endif()
  set(subject runtime)
  if(target IN_LIST fuzz_component_targets)
    set(subject component)
  endif()
  set_tests_properties(
    fuzz.${target} PROPERTIES LABELS "${subject};slow;fuzz" TIMEOUT 120
                              SKIP_RETURN_CODE 77)
endforeach()
