# The package: what is installed, what builds upon it, the Debian packages, the
# archive, and the documentation of the headers. Instrumented builds are not
# what is installed.
if(ZIRDB_SANITIZE
   OR ZIRDB_COVERAGE
   OR NOT PROJECT_IS_TOP_LEVEL
   OR (DEFINED ZIRDB_INSTALL AND NOT ZIRDB_INSTALL))
  return()
endif()

set(package_checks "${CMAKE_CURRENT_SOURCE_DIR}/package")
set(package_tree "${CMAKE_CURRENT_BINARY_DIR}/package/tree")

function(zirdb_package_check name labels)
  zirdb_check(${name} "${labels}" ${ARGN})
  set_tests_properties(
    ${name} PROPERTIES TIMEOUT 120 ENVIRONMENT "CXX=${CMAKE_CXX_COMPILER}")
endfunction()

# An installation and a package leave notes in the build tree: one at a time.
zirdb_package_check(package.installs package "${package_checks}/install.sh"
                    "${PROJECT_BINARY_DIR}" "${package_tree}")
set_tests_properties(package.installs PROPERTIES FIXTURES_SETUP package_tree
                                                 RESOURCE_LOCK package)
zirdb_package_check(
  package.installed_tree_is_the_reviewed_one package
  "${package_checks}/installed_tree.sh" "${PROJECT_SOURCE_DIR}"
  "${PROJECT_BINARY_DIR}" "${package_tree}")
zirdb_package_check(
  package.find_package_leads_to_the_library "package;database"
  "${package_checks}/consumer.sh" find_package "${package_tree}")
zirdb_package_check(
  package.pkg_config_leads_to_the_library "package;database"
  "${package_checks}/consumer.sh" pkg-config "${package_tree}")
zirdb_package_check(
  package.programs_find_the_library "package;database"
  "${package_checks}/programs.sh" "${package_tree}" all)
set_tests_properties(
  package.installed_tree_is_the_reviewed_one
  package.find_package_leads_to_the_library
  package.pkg_config_leads_to_the_library package.programs_find_the_library
  PROPERTIES FIXTURES_REQUIRED package_tree)

zirdb_package_check(
  package.debian_packages_install_and_run "package;database"
  "${package_checks}/debian.sh" "${PROJECT_SOURCE_DIR}"
  "${PROJECT_BINARY_DIR}")
zirdb_package_check(
  package.archive_runs_anywhere "package;database"
  "${package_checks}/archive.sh" "${PROJECT_SOURCE_DIR}"
  "${PROJECT_BINARY_DIR}")
set_tests_properties(
  package.debian_packages_install_and_run package.archive_runs_anywhere
  PROPERTIES RESOURCE_LOCK package)
zirdb_package_check(
  package.parent_project_gets_the_library_only package
  "${package_checks}/parent_project.sh" "${PROJECT_SOURCE_DIR}")
zirdb_package_check(
  package.headers_are_documented_without_a_warning package
  "${package_checks}/doxygen.sh" "${PROJECT_BINARY_DIR}/Doxyfile")
