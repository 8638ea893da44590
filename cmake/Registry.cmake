# Makes the folder that the environment variable REGISTRY names: through it the
# runtime's activation functions find the library by class name, class
# identifier or program identifier. `cmake -P` does it for a built library:
#   cmake -D FOLDER=folder -D LIBRARY=file -P Registry.cmake
# Included by the project, it does so after every link, in the build tree; the
# folder that is installed comes from the function, see Packaging.cmake.
#
# Links, never copies: a copied library would be a second one, with objects and
# errors of its own.

# zirdb_make_registry(folder target): the links lead to the target as written.
function(zirdb_make_registry folder target)
  # Program identifiers are looked up in capitals.
  set(classes
      "ZIRDB.CONNECTION {A3B9D97A-3DE2-4287-9A7B-5EF21F449C1E}"
      "ZIRDB.COMMAND {B250EB07-2332-4C6D-B50D-357641DEAA0D}"
      "ZIRDB.RECORDSET {8EEDA5E6-0575-4F26-B43A-ED25F95E993B}")
  file(MAKE_DIRECTORY "${folder}")
  file(CREATE_LINK "${target}" "${folder}/ZIRDB.so" SYMBOLIC)
  foreach(class IN LISTS classes)
    string(REPLACE " " ";" class "${class}")
    list(GET class 0 program_id)
    list(GET class 1 clsid)
    file(CREATE_LINK "${target}" "${folder}/${clsid}.so" SYMBOLIC)
    file(WRITE "${folder}/${program_id}.clsid" "${clsid}\n")
  endforeach()
endfunction()

if(NOT CMAKE_SCRIPT_MODE_FILE)
  add_custom_command(
    TARGET zirdb
    POST_BUILD
    COMMAND
      "${CMAKE_COMMAND}" -D "FOLDER=${PROJECT_BINARY_DIR}/registry" -D
      "LIBRARY=$<TARGET_FILE_DIR:zirdb>/$<TARGET_LINKER_FILE_NAME:zirdb>" -P
      "${CMAKE_CURRENT_LIST_DIR}/Registry.cmake"
    VERBATIM)
  return()
endif()

foreach(path FOLDER LIBRARY)
  if(NOT ${path})
    message(FATAL_ERROR "${path} is not given")
  endif()
  get_filename_component(${path} "${${path}}" ABSOLUTE)
endforeach()

# Relative, so that the folder can move together with the library.
file(RELATIVE_PATH target "${FOLDER}" "${LIBRARY}")
zirdb_make_registry("${FOLDER}" "${target}")
