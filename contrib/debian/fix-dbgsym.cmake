# Run by cpack after it built the packages. CPack's dbgsym package lists its
# file in md5sums under the absolute staging path and has no documentation;
# rebuild it with a relative md5sums entry and the doc folder as a link to
# the main package's, as debhelper makes them.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  if(NOT package MATCHES "/([^/_]+)-dbgsym_[^/]*[.]ddeb$")
    continue()
  endif()
  set(main ${CMAKE_MATCH_1})
  set(tree ${package}.tree)
  file(REMOVE_RECURSE ${tree})
  execute_process(COMMAND dpkg-deb -R ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
  file(READ ${tree}/DEBIAN/md5sums sums)
  string(REGEX REPLACE "  /[^\n]*-dbgsym/" "  " sums "${sums}")
  file(WRITE ${tree}/DEBIAN/md5sums "${sums}")
  file(GLOB_RECURSE debug_files ${tree}/usr/lib/debug/*.debug)
  file(CHMOD ${debug_files} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(MAKE_DIRECTORY ${tree}/usr/share/doc)
  file(CREATE_LINK ${main} ${tree}/usr/share/doc/${main}-dbgsym SYMBOLIC)
  execute_process(COMMAND dpkg-deb --root-owner-group -Zxz -b ${tree} ${package}
                  OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${tree})
endforeach()
