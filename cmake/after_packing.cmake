# Run by cpack on the finished packages. cpack adds maintainer scripts that call ldconfig to every package with a shared
# library. These packages have a trigger for that; Debian packages must have only one of the two.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(folder ${package}.unpacked)
  execute_process(COMMAND dpkg-deb -R ${package} ${folder} COMMAND_ERROR_IS_FATAL ANY)
  if(EXISTS ${folder}/DEBIAN/triggers)
    file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)
    execute_process(COMMAND dpkg-deb --root-owner-group -b ${folder} ${package} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
  file(REMOVE_RECURSE ${folder})
endforeach()
