# Fuzz targets: libFuzzer's programs, compiled by clang with the runtime and the
# sanitizers in them, whatever compiles the rest. Each runs for some seconds as
# a test; scripts/fuzz.sh runs them for longer.

set(fuzz_targets
    utf8_utf32
    utf32_utf8
    utf16_utf32
    utf32_utf16
    var_date_from_str
    variant_change_type
    clsid_from_prog_id)
set(fuzz_seconds 8)

# Compiled by nobody: this is how clang-tidy learns how they would be.
set(fuzz_sources ${fuzz_targets})
list(TRANSFORM fuzz_sources REPLACE "(.+)" "fuzz/\\1.cpp")
add_library(fuzz_sources OBJECT EXCLUDE_FROM_ALL ${fuzz_sources})
target_include_directories(fuzz_sources PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(fuzz_sources PRIVATE zirdb_warnings zirdb::zirdb)

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

  # The runtime once, for all of them.
  add_custom_command(
    OUTPUT "${fuzz_folder}/zir.o"
    COMMAND ${fuzz_compile} -fsanitize=fuzzer-no-link -MD -MF zir.d -MT
            "${fuzz_folder}/zir.o" -c "${PROJECT_SOURCE_DIR}/src/zir.cpp" -o zir.o
    DEPENDS "${PROJECT_SOURCE_DIR}/src/zir.cpp"
    DEPFILE "${fuzz_folder}/zir.d"
    WORKING_DIRECTORY "${fuzz_folder}"
    COMMENT "Building the runtime for the fuzz targets"
    COMMAND_EXPAND_LISTS VERBATIM)
  set(fuzz_programs ${fuzz_targets})
  list(TRANSFORM fuzz_programs PREPEND "${fuzz_folder}/fuzz_")
  foreach(target IN LISTS fuzz_targets)
    add_custom_command(
      OUTPUT "${fuzz_folder}/fuzz_${target}"
      COMMAND
        ${fuzz_compile} -fsanitize=fuzzer -MD -MF ${target}.d -MT
        "${fuzz_folder}/fuzz_${target}"
        "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/${target}.cpp" zir.o
        "${ZIRDB_UUID_LIBRARY}" -ldl -o fuzz_${target}
      DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/fuzz/${target}.cpp"
              "${fuzz_folder}/zir.o"
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
  set_tests_properties(
    fuzz.${target} PROPERTIES LABELS "runtime;slow;fuzz" TIMEOUT 120
                              SKIP_RETURN_CODE 77)
endforeach()
