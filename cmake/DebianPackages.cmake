# What a Debian package has and an installation does not. CPack includes this
# before it makes the packages, when the files lie in a folder per component,
# and once more when the packages are made.

if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()

if(NOT CPACK_PACKAGE_FILES)
  # The changes themselves are told in CHANGELOG.md, among the documentation.
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  set(changelog "${CPACK_TEMPORARY_DIRECTORY}/changelog")
  file(
    WRITE "${changelog}"
    "zirdb (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * Version ${CPACK_PACKAGE_VERSION}.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  execute_process(COMMAND gzip -9n "${changelog}" COMMAND_ERROR_IS_FATAL ANY)

  foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    set(root "${CPACK_TEMPORARY_DIRECTORY}/${component}")
    string(TOUPPER "${component}" name)
    set(package "${CPACK_DEBIAN_${name}_PACKAGE_NAME}")
    set(documents "${root}/usr/share/doc/${package}")
    configure_file("${CPACK_RESOURCE_FILE_LICENSE}" "${documents}/copyright"
                   COPYONLY)
    file(COPY "${changelog}.gz" DESTINATION "${documents}")

    # Whatever the umask.
    file(
      CHMOD_RECURSE "${root}/usr/share"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
      DIRECTORY_PERMISSIONS ${CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})

    file(GLOB pages "${root}/usr/share/man/man*/*.[1-9]")
    foreach(page IN LISTS pages)
      execute_process(COMMAND gzip -9n "${page}" COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
  endforeach()
  file(REMOVE "${changelog}.gz")
  return()
endif()

# CPack gives a package with a library maintainer scripts that call ldconfig.
# The trigger does, once for all packages that are installed together, and
# installs into a root without a shell as well.
foreach(file IN LISTS CPACK_PACKAGE_FILES)
  if(NOT file MATCHES "/libzirdb[0-9]+_[^/]*$")
    continue()
  endif()
  set(root "${CPACK_TOPLEVEL_DIRECTORY}/without_scripts")
  file(REMOVE_RECURSE "${root}")
  execute_process(COMMAND dpkg-deb -R "${file}" "${root}"
                  COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE "${root}/DEBIAN/postinst" "${root}/DEBIAN/postrm")
  execute_process(COMMAND dpkg-deb --root-owner-group -Zxz -b "${root}" "${file}"
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${root}")
endforeach()
