# Run by cpack on the finished packages. It gives every package with a shared library maintainer scripts that call
# ldconfig; ours have a trigger for that, and Debian wants one of the two.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  set(folder ${package}.unpacked)
  execute_process(COMMAND dpkg-deb -R ${package} ${folder} COMMAND_ERROR_IS_FATAL ANY)
  if(EXISTS ${folder}/DEBIAN/triggers)
    file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)
    execute_process(COMMAND dpkg-deb --root-owner-group -b ${folder} ${package} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
  file(REMOVE_RECURSE ${folder})
endforeach()
