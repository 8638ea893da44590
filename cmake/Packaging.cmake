# Installation, the Debian packages and the archive.
#
# What is installed finds its other parts by relative paths only, so that the
# tree can be moved, and carries no path of the machine that built it.

option(ZIRDB_INSTALL "Have rules for installation" ${PROJECT_IS_TOP_LEVEL})
if(NOT ZIRDB_INSTALL)
  return()
endif()

# ---------------------------------------------------------------------------
# Where things go
# ---------------------------------------------------------------------------

# One layout for every prefix: Debian's own library folder, where its linker,
# its pkg-config and its Node.js look, below /usr/local too. CMake would choose
# it for /usr only, and packages are made for /usr whatever the prefix.
if(PROJECT_IS_TOP_LEVEL
   AND NOT DEFINED CMAKE_INSTALL_LIBDIR
   AND CMAKE_LIBRARY_ARCHITECTURE
   AND EXISTS "/etc/debian_version")
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZIRDB_REGISTRY_DIR "${CMAKE_INSTALL_LIBDIR}/zirdb/registry")
set(node_dir "${CMAKE_INSTALL_LIBDIR}/nodejs/zirdb")
set(config_dir "${CMAKE_INSTALL_LIBDIR}/cmake/zirdb")
set(pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# zirdb_path_between(variable from to): a relative path, for folders that are
# relative to the prefix or absolute.
function(zirdb_path_between variable from to)
  cmake_path(ABSOLUTE_PATH from BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
  cmake_path(ABSOLUTE_PATH to BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
  file(RELATIVE_PATH path "${from}" "${to}")
  string(REGEX REPLACE "/$" "" path "${path}")
  set(${variable} "${path}" PARENT_SCOPE)
endfunction()

# zirdb_without_build_paths(target): compiled so that it does not tell where.
function(zirdb_without_build_paths target)
  # Instrumented programs have to find their sources again.
  if(NOT ZIRDB_SANITIZE AND NOT ZIRDB_COVERAGE)
    # The last one that fits wins: the build tree may be inside the sources.
    target_compile_options(
      ${target} PRIVATE "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="
                        "-ffile-prefix-map=${PROJECT_BINARY_DIR}=.")
  endif()
endfunction()

# zirdb_install_beside_library(target kind folder component): a program or a
# module that finds the library by the way from one folder to the other, unless
# it is below /usr, where the loader looks by itself.
function(zirdb_install_beside_library target kind folder component)
  zirdb_without_build_paths(${target})
  zirdb_path_between(path "${folder}" "${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${path}")
  install(
    TARGETS ${target}
    ${kind} DESTINATION "${folder}"
    COMPONENT ${component})
  install(
    CODE "set(installed \"${folder}/$<TARGET_FILE_NAME:${target}>\")
cmake_path(ABSOLUTE_PATH installed BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?$\")
  file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${installed}\")
endif()"
    COMPONENT ${component})
endfunction()

# ---------------------------------------------------------------------------
# The library
# ---------------------------------------------------------------------------

zirdb_without_build_paths(zirdb)
install(
  TARGETS zirdb
  EXPORT zirdb
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
          COMPONENT runtime
          NAMELINK_COMPONENT development
  INCLUDES
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zirdb")

# The links lead to the name that the loader uses: the one without a version
# belongs to those who compile.
zirdb_path_between(path "${ZIRDB_REGISTRY_DIR}" "${CMAKE_INSTALL_LIBDIR}")
set(registry "${PROJECT_BINARY_DIR}/installed_registry")
zirdb_make_registry("${registry}" "${path}/libzirdb.so.${PROJECT_VERSION_MAJOR}")
install(
  DIRECTORY "${registry}/"
  DESTINATION "${ZIRDB_REGISTRY_DIR}"
  COMPONENT runtime)

# ---------------------------------------------------------------------------
# Development: headers, what build systems ask for, documentation
# ---------------------------------------------------------------------------

install(
  FILES src/zir.h src/zirdb.h src/zirdb_odbc.h
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zirdb"
  COMPONENT development)

configure_package_config_file(
  cmake/zirdb-config.cmake.in "${PROJECT_BINARY_DIR}/zirdb-config.cmake"
  INSTALL_DESTINATION "${config_dir}"
  PATH_VARS ZIRDB_REGISTRY_DIR)
# Before 1.0 a minor version may change anything.
if(PROJECT_VERSION VERSION_LESS 1)
  set(compatibility SameMinorVersion)
else()
  set(compatibility SameMajorVersion)
endif()
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/zirdb-config-version.cmake"
  COMPATIBILITY ${compatibility})
install(
  FILES "${PROJECT_BINARY_DIR}/zirdb-config.cmake"
        "${PROJECT_BINARY_DIR}/zirdb-config-version.cmake"
  DESTINATION "${config_dir}"
  COMPONENT development)
install(
  EXPORT zirdb
  FILE zirdb-targets.cmake
  NAMESPACE zirdb::
  DESTINATION "${config_dir}"
  COMPONENT development)

zirdb_path_between(ZIRDB_PC_PREFIX "${pkgconfig_dir}" ".")
foreach(folder LIBDIR INCLUDEDIR)
  set(ZIRDB_PC_${folder} "${CMAKE_INSTALL_${folder}}")
  cmake_path(IS_ABSOLUTE ZIRDB_PC_${folder} absolute)
  if(NOT absolute)
    string(PREPEND ZIRDB_PC_${folder} "\${prefix}/")
  endif()
endforeach()
configure_file(cmake/zirdb.pc.in "${PROJECT_BINARY_DIR}/zirdb.pc" @ONLY)
install(
  FILES "${PROJECT_BINARY_DIR}/zirdb.pc"
  DESTINATION "${pkgconfig_dir}"
  COMPONENT development)

# As they stand in the sources, so that their links to each other lead there.
install(
  FILES README.md CHANGELOG.md LICENSE SECURITY.md
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT development)
install(
  DIRECTORY docs examples
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT development
  FILES_MATCHING
  PATTERN "*.md"
  PATTERN "*.cpp"
  PATTERN "*.h"
  PATTERN "*.js"
  PATTERN "*.py"
  PATTERN "*.sh"
  PATTERN "*.ts")

# ---------------------------------------------------------------------------
# The command line and the Node.js host, where they are built
# ---------------------------------------------------------------------------

set(components runtime development)
if(TARGET zirdb_tool)
  list(APPEND components tools)
  zirdb_install_beside_library(zirdb_tool RUNTIME "${CMAKE_INSTALL_BINDIR}"
                               tools)
  install(
    FILES tools/zirdb/zirdb.1
    DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
    COMPONENT tools)
endif()
if(TARGET zirdb_node)
  list(APPEND components node)
  zirdb_install_beside_library(zirdb_node LIBRARY "${node_dir}" node)
  install(
    DIRECTORY "${PROJECT_BINARY_DIR}/node_modules/zirdb/"
    DESTINATION "${node_dir}"
    COMPONENT node
    PATTERN "zirdb.node" EXCLUDE)
endif()

# ---------------------------------------------------------------------------
# Documentation of the headers
# ---------------------------------------------------------------------------

find_program(ZIRDB_DOXYGEN doxygen)
if(ZIRDB_DOXYGEN)
  configure_file(cmake/Doxyfile.in "${PROJECT_BINARY_DIR}/Doxyfile" @ONLY)
  add_custom_target(
    docs
    COMMAND "${ZIRDB_DOXYGEN}" "${PROJECT_BINARY_DIR}/Doxyfile"
    COMMENT "Documenting the headers"
    VERBATIM)
endif()

# ---------------------------------------------------------------------------
# Packages
# ---------------------------------------------------------------------------

if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()

set(ZIRDB_MAINTAINER
    "The zirdb authors <zirdb@localhost>"
    CACHE STRING "Who answers for the Debian packages: \"Name <address>\"")

set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_VENDOR "The zirdb authors")
set(CPACK_PACKAGE_CONTACT "${ZIRDB_MAINTAINER}")
# Every package has its own: this one would come before it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_FILE_NAME
    "zirdb-${PROJECT_VERSION}-linux-${CMAKE_SYSTEM_PROCESSOR}")
set(CPACK_RESOURCE_FILE_LICENSE "${PROJECT_SOURCE_DIR}/LICENSE")
set(CPACK_STRIP_FILES ON)
# Whatever the umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
    WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(debian_steps "${CMAKE_CURRENT_LIST_DIR}/DebianPackages.cmake")
set(CPACK_PRE_BUILD_SCRIPTS "${debian_steps}")
set(CPACK_POST_BUILD_SCRIPTS "${debian_steps}")

set(library_package "libzirdb${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE zirdb)
# The other packages need the library of the same build: they are compiled
# against it, and it is not in any package yet when they ask.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
foreach(component development tools node)
  string(TOUPPER "${component}" name)
  set(CPACK_COMPONENT_${name}_DEPENDS runtime)
endforeach()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "${library_package}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS
    "libsqliteodbc, odbc-mariadb, odbc-postgresql")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "scriptable database objects over ODBC - shared library
Connections, commands and recordsets for script engines and C++ hosts that
follow the Automation object model, together with the runtime they need:
strings, variants, arrays, coercion and activation.
.
The library speaks to any database that has an ODBC driver.")
foreach(file shlibs triggers)
  list(APPEND CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
       "${PROJECT_BINARY_DIR}/debian/${file}")
endforeach()
file(
  CONFIGURE
  OUTPUT "${PROJECT_BINARY_DIR}/debian/shlibs"
  CONTENT
    "libzirdb @PROJECT_VERSION_MAJOR@ @library_package@ (>= @PROJECT_VERSION@)\n"
  @ONLY)
file(WRITE "${PROJECT_BINARY_DIR}/debian/triggers"
     "activate-noawait ldconfig\n")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzirdb-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "scriptable database objects over ODBC - development files
Headers, the files that CMake and pkg-config ask for, the documentation and the
examples of zirdb, a library of scriptable database objects over ODBC.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zirdb-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION database)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS libsqliteodbc)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "odbc-mariadb, odbc-postgresql")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "scriptable database objects over ODBC - command line
The command zirdb runs SQL through any ODBC driver and prints a table, CSV or
JSON. It also finds out why a driver or a data source is not found.")

set(CPACK_DEBIAN_NODE_PACKAGE_NAME node-zirdb)
set(CPACK_DEBIAN_NODE_PACKAGE_SECTION javascript)
set(CPACK_DEBIAN_NODE_PACKAGE_DEPENDS "nodejs (>= 18)")
set(CPACK_DEBIAN_NODE_PACKAGE_RECOMMENDS libsqliteodbc)
set(CPACK_DEBIAN_NODE_PACKAGE_SUGGESTS "odbc-mariadb, odbc-postgresql")
set(CPACK_COMPONENT_NODE_DESCRIPTION
    "scriptable database objects over ODBC - Node.js host
Creates the database objects of zirdb from JavaScript and drives them as if
they were objects of the language: connections, commands, recordsets and fields
over any database that has an ODBC driver.")

include(CPack)
