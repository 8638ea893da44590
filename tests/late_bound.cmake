# The header that hosts in C++ copy.
zirdb_scripted_test(late_bound_test LABELS component SOURCES
                    late_bound_test.cpp)
target_include_directories(late_bound_test_objects
                           PRIVATE "${PROJECT_SOURCE_DIR}/examples")
target_compile_definitions(
  late_bound_test_objects
  PRIVATE REGISTRY_FOLDER="${PROJECT_BINARY_DIR}/registry")
if(ZIRDB_SANITIZE MATCHES "undefined")
  # What ends a thread is caught by a reference to no object at all.
  set_source_files_properties(late_bound_test.cpp PROPERTIES COMPILE_OPTIONS
                                                             -fno-sanitize=null)
endif()
