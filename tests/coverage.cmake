# Ways through the library that no other subject leads to; coverage.sh found
# them.
zirdb_test_program(coverage_foreign_test SOURCES coverage_foreign_test.cpp)
zirdb_discover(coverage_foreign_test LABELS runtime component)
