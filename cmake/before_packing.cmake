# Run by cpack on the files of the packages before they are packed. Compresses the manual pages and removes the section
# that names the compiler: Debian expects both of a package, but a plain installation does neither.
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/man*/*.[1-9])
if(pages)
  execute_process(COMMAND gzip -9n ${pages} COMMAND_ERROR_IS_FATAL ANY)
endif()
file(GLOB_RECURSE binaries ${CPACK_TEMPORARY_DIRECTORY}/*/usr/bin/* ${CPACK_TEMPORARY_DIRECTORY}/*/usr/lib/*.so.*.*)
execute_process(COMMAND strip --remove-section=.comment ${binaries} COMMAND_ERROR_IS_FATAL ANY)
