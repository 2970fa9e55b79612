# Manual pages of the functions, made from the headers at every build and installed with them. The HTML pages are made
# by ./run reference.
find_program(AWK awk)
if(NOT AWK)
  message(STATUS "no awk: the manual pages of the functions are not made")
  return()
endif()

set(reference ${PROJECT_BINARY_DIR}/reference)
file(GLOB reference_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/reference/*.sh
  ${PROJECT_SOURCE_DIR}/docs/reference/man.awk ${PROJECT_SOURCE_DIR}/companion/host.h)
foreach(folder mqnode cpp/mqnode socksin sockutil queue runtime)
  file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.h)
  list(APPEND reference_sources ${headers})
endforeach()

add_custom_command(OUTPUT ${reference}/man.made
  COMMAND ${PROJECT_SOURCE_DIR}/docs/reference/make.sh man ${reference} ${PROJECT_VERSION}
  COMMAND ${CMAKE_COMMAND} -E touch ${reference}/man.made
  DEPENDS ${reference_sources}
  COMMENT "Making the manual pages of the functions"
  VERBATIM)
add_custom_target(manual ALL DEPENDS ${reference}/man.made)

install(DIRECTORY ${reference}/man/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development
  FILES_MATCHING PATTERN *.3)
