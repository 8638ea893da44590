# Foreign code that runs while an operation is under way.

zirdb_scripted_test(component_interference_test LABELS component SOURCES
                    component_interference_test.cpp)

zirdb_test_program(component_interference_by_hand_test
                   SOURCES component_interference_by_hand_test.cpp)
if(ZIRDB_SANITIZE MATCHES "undefined")
  # UndefinedBehaviorSanitizer asks every object for its type.
  set(by_hand_filter "-ForeignObjectsMadeByHand.*")
else()
  set(by_hand_filter "*")
endif()
zirdb_discover(component_interference_by_hand_test LABELS component FILTER
               ${by_hand_filter})

# The scripted database is built in, in place of the driver manager, whose own
# requests would fail too.
zirdb_workbench_program(
  component_interference_memory_test
  SOURCES component_interference_memory_test.cpp runtime_allocator.cpp
          support/unwatched_database.cpp
          $<TARGET_OBJECTS:scripted_face_stand_in>)
target_include_directories(component_interference_memory_test SYSTEM
                           PRIVATE "${ZIRDB_ODBC_INCLUDE_DIR}")
# It defines malloc, which all libraries must find in the program.
set_target_properties(component_interference_memory_test
                      PROPERTIES ENABLE_EXPORTS ON)
zirdb_discover(component_interference_memory_test LABELS component odbc)
