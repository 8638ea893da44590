# The scripted ODBC database and the tests on it (support/scripted_odbc.h).

set(scripted_folder "${PROJECT_BINARY_DIR}/tests")
set(scripted_engine support/scripted_odbc.cpp
                    support/scripted_odbc_entry_points.cpp
                    support/scripted_odbc_forbidden.cpp)

# The driver, with a driver table of its own so that it is found by name too.
add_library(scripted_odbc MODULE scripted_driver/scripted_driver.cpp
                                 ${scripted_engine})
target_compile_definitions(scripted_odbc PRIVATE SCRIPTED_ODBC_IS_DRIVER)
target_include_directories(scripted_odbc PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
target_include_directories(scripted_odbc SYSTEM
                           PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
target_link_libraries(scripted_odbc PRIVATE zirdb_warnings
                                            zirdb_instrumentation)
# The driver's own symbols come first: the same names exist in the manager.
target_link_options(scripted_odbc PRIVATE LINKER:-Bsymbolic LINKER:-z,defs)
set_target_properties(scripted_odbc PROPERTIES LIBRARY_OUTPUT_DIRECTORY
                                               "${scripted_folder}")
# Tests wait for it tens of thousands of times.
target_compile_options(scripted_odbc PRIVATE -O1)
file(CONFIGURE
     OUTPUT "${scripted_folder}/scripted_odbc_ini/odbcinst.ini"
     CONTENT "[Scripted]
Driver = @scripted_folder@/libscripted_odbc.so
"
     @ONLY)
file(CONFIGURE
     OUTPUT "${scripted_folder}/scripted_odbc_ini/odbc.ini"
     CONTENT "[scripted]
Driver = Scripted
"
     @ONLY)

# The two faces, each with the fixture. Object libraries: a static one would
# drop the entry points that nothing in the program calls by name.
add_library(scripted_face_driver OBJECT
            support/scripted_odbc.cpp support/scripted_odbc_fixture.cpp
            support/scripted_odbc_driver_face.cpp)
target_compile_definitions(
  scripted_face_driver
  PRIVATE SCRIPTED_ODBC_DRIVER="${scripted_folder}/libscripted_odbc.so"
          SCRIPTED_ODBC_INI_FOLDER="${scripted_folder}/scripted_odbc_ini")
add_library(scripted_face_stand_in OBJECT
            ${scripted_engine} support/scripted_odbc_fixture.cpp
            support/scripted_odbc_stand_in.cpp)
foreach(face driver stand_in)
  target_include_directories(scripted_face_${face}
                             PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
  target_include_directories(scripted_face_${face} SYSTEM
                             PUBLIC "${ZIRDB_ODBC_INCLUDE_DIR}")
  target_compile_options(scripted_face_${face} PRIVATE -O1)
  target_link_libraries(
    scripted_face_${face}
    PUBLIC zirdb::zirdb GTest::gtest
    PRIVATE zirdb_warnings zirdb_tests_instrumentation ${CMAKE_DL_LIBS})
endforeach()

# zirdb_scripted_test(name SOURCES file... [LABELS label...]
#                     [LIBRARIES lib...] [STAND_IN_ONLY | DRIVER_ONLY])
# One source, two test programs: name_driver (tests "scripted_driver/...")
# through the real driver manager, name_stand_in (tests "stand_in/...") in its
# place. Carries the label "odbc" besides the given ones.
function(zirdb_scripted_test name)
  cmake_parse_arguments(arg "STAND_IN_ONLY;DRIVER_ONLY" ""
                        "SOURCES;LABELS;LIBRARIES" ${ARGN})
  set(faces driver stand_in)
  if(arg_STAND_IN_ONLY)
    set(faces stand_in)
  elseif(arg_DRIVER_ONLY)
    set(faces driver)
  endif()
  # Compiled once: what differs between the faces is what it is linked with.
  add_library(${name}_objects OBJECT ${arg_SOURCES})
  target_include_directories(${name}_objects
                             PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
  target_include_directories(${name}_objects SYSTEM
                             PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
  target_link_libraries(
    ${name}_objects PRIVATE zirdb_warnings zirdb_tests_instrumentation zirdb::zirdb
                            ${arg_LIBRARIES} GTest::gtest)
  foreach(face ${faces})
    set(prefix ${face}/)
    if(face STREQUAL "driver")
      set(prefix scripted_driver/)
    endif()
    set(program ${name}_${face})
    zirdb_test_program(
      ${program}
      SOURCES $<TARGET_OBJECTS:${name}_objects>
      LIBRARIES scripted_face_${face} ${arg_LIBRARIES})
    zirdb_discover(${program} PREFIX ${prefix} LABELS odbc ${arg_LABELS})
    if(face STREQUAL "driver")
      add_dependencies(${program} scripted_odbc)
    else()
      # What the program exports is found before what libodbc exports.
      set_target_properties(${program} PROPERTIES ENABLE_EXPORTS ON)
    endif()
  endforeach()
endfunction()

zirdb_scripted_test(scripted_smoke_test LABELS threads SOURCES
                    scripted_smoke_test.cpp)
zirdb_scripted_test(scripted_driver_face_test DRIVER_ONLY SOURCES
                    scripted_driver/driver_face_test.cpp)
zirdb_scripted_test(scripted_odbc_test STAND_IN_ONLY SOURCES
                    support/scripted_odbc_test.cpp)
