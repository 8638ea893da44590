# Compiles through ccache where it is installed and nothing else was chosen.
if(NOT CMAKE_CXX_COMPILER_LAUNCHER)
  find_program(ZIRDB_CCACHE ccache)
  if(ZIRDB_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${ZIRDB_CCACHE}")
  endif()
endif()
