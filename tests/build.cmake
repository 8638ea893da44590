# The build itself: what is exported and imported, that the sources build
# without any of this, that headers stand alone, and that the tree is clean.

function(zirdb_check name labels)
  add_test(NAME ${name} COMMAND bash ${ARGN})
  set_tests_properties(${name} PROPERTIES LABELS "${labels}" TIMEOUT 600
                                          SKIP_RETURN_CODE 77)
endfunction()
set(checks "${CMAKE_CURRENT_SOURCE_DIR}/build_checks")

zirdb_check(build.exports_are_the_reviewed_list package
            "${checks}/exports.sh" $<TARGET_FILE:zirdb> "${checks}/exports.txt")
zirdb_check(
  build.only_the_fifteen_odbc_calls_are_imported package
  "${checks}/odbc_imports.sh" $<TARGET_FILE:zirdb> "${checks}/odbc_imports.txt")
if(TARGET host)
  zirdb_check(examples.host "component;database" "${checks}/host_example.sh"
              $<TARGET_FILE:host>)
  set_tests_properties(
    examples.host PROPERTIES ENVIRONMENT
                             "REGISTRY=${PROJECT_BINARY_DIR}/registry")
endif()

# What follows looks at sources or at the library as released: once is enough,
# and instrumented binaries would differ.
if(NOT ZIRDB_SANITIZE AND NOT ZIRDB_COVERAGE)
  zirdb_check(build.links_only_what_it_names package
              "${checks}/linked_libraries.sh" $<TARGET_FILE:zirdb>)
  zirdb_check(build.sources_build_with_one_command "package;database"
              "${checks}/plain_build.sh" "${PROJECT_SOURCE_DIR}")
  # The servers, with the locale and the driver table that their drivers ask
  # for, are those of journeys.cmake.
  set(servers "${CMAKE_CURRENT_BINARY_DIR}/servers")
  set(document_node "")
  if(TARGET zirdb_node)
    set(document_node "${ZIRDB_NODE}")
  endif()
  function(zirdb_document_check name document)
    cmake_parse_arguments(arg "" "SERVER;FIXTURE" "ENVIRONMENT" ${ARGN})
    if(arg_SERVER)
      list(APPEND arg_SERVER "${servers}/${arg_FIXTURE}.connection")
    endif()
    zirdb_check(
      ${name} "package;database" "${checks}/document_snippets.sh"
      "${PROJECT_SOURCE_DIR}" $<TARGET_FILE:zirdb> ${document} ${arg_SERVER})
    set_tests_properties(
      ${name}
      PROPERTIES ENVIRONMENT
                 "REGISTRY=${PROJECT_BINARY_DIR}/registry;NODE=${document_node};\
${arg_ENVIRONMENT}"
                 FIXTURES_REQUIRED "${arg_FIXTURE}")
  endfunction()
  zirdb_document_check(build.readme_program_runs README.md)
  zirdb_document_check(build.security_document_program_runs SECURITY.md)
  zirdb_document_check(build.node_document_program_runs hosts/node/README.md)
  foreach(page quickstart runtime objects reference types errors limits drivers
               reliability)
    zirdb_document_check(build.${page}_document_program_runs docs/${page}.md)
  endforeach()
  zirdb_document_check(
    build.drivers_document_program_runs_on_postgres docs/drivers.md
    SERVER PostgreSQL FIXTURE postgres
    ENVIRONMENT LC_ALL=C.UTF-8 "ODBCSYSINI=${servers}")
  zirdb_document_check(build.drivers_document_program_runs_on_mariadb
                       docs/drivers.md SERVER MariaDB FIXTURE mariadb)
  if(TARGET zirdb_node)
    zirdb_check(
      examples.node "host;database" "${checks}/node_examples.sh"
      "${ZIRDB_NODE}" "${PROJECT_SOURCE_DIR}/examples/node"
      "${PROJECT_BINARY_DIR}")
    zirdb_check(
      examples.node_declarations "host;database"
      "${checks}/node_declarations.sh" "${ZIRDB_NODE}" "${PROJECT_SOURCE_DIR}"
      "${PROJECT_BINARY_DIR}")
  endif()
  zirdb_check(build.documents_are_complete package
              "${checks}/document_completeness.sh" "${PROJECT_SOURCE_DIR}")
  zirdb_check(build.headers_stand_alone package "${checks}/headers.sh"
              "${PROJECT_SOURCE_DIR}")
  zirdb_check(lint.clang_format lint "${checks}/clang_format.sh"
              "${PROJECT_SOURCE_DIR}")
  zirdb_check(lint.clang_tidy "lint;slow" "${checks}/clang_tidy.sh"
              "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}")
  # Minutes on an idle machine; the others are done in seconds.
  set_tests_properties(lint.clang_tidy PROPERTIES TIMEOUT 1200)
  zirdb_check(lint.cppcheck lint "${checks}/cppcheck.sh"
              "${PROJECT_SOURCE_DIR}")
  zirdb_check(lint.shellcheck lint "${checks}/shellcheck.sh"
              "${PROJECT_SOURCE_DIR}")
endif()
