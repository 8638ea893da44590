# Connections and commands without memory. The scripted database is built in, in
# place of the driver manager, whose own requests would fail too.
foreach(subject connection command)
  set(program component_allocation_failure_${subject}_test)
  zirdb_workbench_program(
    ${program}
    SOURCES ${program}.cpp runtime_allocator.cpp support/unwatched_database.cpp
            $<TARGET_OBJECTS:scripted_face_stand_in>)
  target_include_directories(${program} SYSTEM
                             PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
  # It defines malloc, which all libraries must find in the program.
  set_target_properties(${program} PROPERTIES ENABLE_EXPORTS ON)
  zirdb_discover(${program} LABELS component odbc)
endforeach()
