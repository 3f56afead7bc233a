# What Debian wants in a package, and a folder that `cmake --install` fills does not have: copyright
# and changelogs, overrides for lintian, everything compressed that has to be. CPack runs this when it
# has laid out the packages' files, before it packs them.

set(ENV{SOURCE_DATE_EPOCH} ${CPACK_VOK_EPOCH})  # for CPack's archives
find_program(vok_gzip gzip REQUIRED)

# Without name and time in it: the same file makes the same archive.
function(vok_compress)
  foreach(file ${ARGN})
    execute_process(COMMAND ${vok_gzip} -9nf "${file}" COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
endfunction()

function(vok_finish_package folder package)
  set(doc "${folder}/usr/share/doc/${package}")
  set(debian "${CPACK_VOK_PACKAGING}/debian")
  set(mode OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  # Not file(INSTALL), which CPack's DESTDIR leads elsewhere.
  configure_file("${debian}/copyright" "${doc}/copyright" COPYONLY FILE_PERMISSIONS ${mode})
  configure_file("${CPACK_VOK_CHANGELOG_DEBIAN}" "${doc}/changelog.Debian" COPYONLY
                 FILE_PERMISSIONS ${mode})
  configure_file("${CPACK_VOK_CHANGELOG}" "${doc}/changelog" COPYONLY FILE_PERMISSIONS ${mode})
  vok_compress("${doc}/changelog" "${doc}/changelog.Debian")

  file(GLOB pages "${folder}/usr/share/man/man*/*[0-9]")
  vok_compress(${pages})

  # What lintian is told of every package, then of this one.
  set(PACKAGE "${package}")
  file(READ "${debian}/lintian-overrides" overrides)
  string(REGEX REPLACE "[0-9]+$" "" name "${package}")
  if(EXISTS "${debian}/${name}.lintian-overrides")
    file(READ "${debian}/${name}.lintian-overrides" own)
    string(APPEND overrides "\n${own}")
  endif()
  string(CONFIGURE "${overrides}" overrides @ONLY)
  file(CONFIGURE OUTPUT "${folder}/usr/share/lintian/overrides/${package}" CONTENT "@overrides@"
       @ONLY)
  file(CHMOD "${folder}/usr/share/lintian/overrides/${package}" PERMISSIONS ${mode})
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  vok_finish_package("${CPACK_TEMPORARY_DIRECTORY}/${component}"
                     "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
endforeach()
