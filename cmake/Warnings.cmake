# zirdb_warnings: what every target of the project is compiled with.
add_library(zirdb_warnings INTERFACE)
target_compile_options(
  zirdb_warnings
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Wsign-conversion
            -Wold-style-cast
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            -Wcast-qual
            -Wdouble-promotion
            -Wundef)
if(ZIRDB_WERROR)
  target_compile_options(zirdb_warnings INTERFACE -Werror)
endif()
