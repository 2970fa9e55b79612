# The reference, made from the headers: manual pages at every build, installed with the headers; HTML pages by
# ./run reference, and when the component documentation is installed.
set(reference ${PROJECT_BINARY_DIR}/reference)
find_program(DOXYGEN doxygen)
find_program(AWK awk)
if(NOT AWK OR NOT PROJECT_IS_TOP_LEVEL)
  message(STATUS "the manual pages are not made: no awk, or part of another project")
  return()
endif()

file(GLOB reference_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/reference/*
  ${PROJECT_SOURCE_DIR}/companion/host.h ${PROJECT_SOURCE_DIR}/examples/hello.c)
foreach(folder mqnode cpp/mqnode loop/mqnode socksin sockutil queue runtime)
  file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.h ${PROJECT_SOURCE_DIR}/${folder}/*.hpp)
  list(APPEND reference_sources ${headers})
endforeach()

add_custom_command(OUTPUT ${reference}/man.made
  COMMAND ${PROJECT_SOURCE_DIR}/docs/reference/make.sh man ${reference} ${PROJECT_VERSION}
  COMMAND ${CMAKE_COMMAND} -E touch ${reference}/man.made
  DEPENDS ${reference_sources}
  COMMENT "Making the manual pages of the library"
  VERBATIM)
add_custom_target(manual ALL DEPENDS ${reference}/man.made)

install(DIRECTORY ${reference}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)

# The examples of the manual pages compile.
if(MQNODE_BUILD_TESTS)
  add_library(reference_examples OBJECT docs/reference/examples.c)
  target_link_libraries(reference_examples PRIVATE mqnode_host)
endif()
