# Debian packages, one for each component: libmqnode1, libmqcompanion1, libmqnode-dev, mqnode-doc, and mqnode-tools if
# mqcat is built. From a build folder:
#   cpack -G DEB
# tests/install_test.sh does that and has lintian look at the result. There is no address for mail yet: to publish
# packages, set MQNODE_MAINTAINER.
set(MQNODE_MAINTAINER "the mqnode authors <maintainers@mqnode.invalid>" CACHE STRING
  "Maintainer field of the packages")
# Not a revision of Debian's: 0, and one of ours.
set(MQNODE_PACKAGE_RELEASE 0mq1)
set(MQNODE_PACKAGE_VERSION ${PROJECT_VERSION}-${MQNODE_PACKAGE_RELEASE})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mqnode)
set(CPACK_PACKAGE_VENDOR "the mqnode authors")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library companion development documentation)
if(MQNODE_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${MQNODE_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${MQNODE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# What the packages need of others is read from the files; of one another it is said below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/before_packing.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/after_packing.cmake)

find_program(GZIP gzip)
string(TIMESTAMP MQNODE_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)

# A file compressed without its name and time.
function(mqnode_install_gzipped source name folder component)
  set(packed ${PROJECT_BINARY_DIR}/packages/${component}/${name}.gz)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packages/${component})
  execute_process(COMMAND ${GZIP} -9nc ${source} OUTPUT_FILE ${packed} COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${packed} DESTINATION ${folder} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

# mqnode_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION): names the package of a component and gives it what every
# Debian package has: a copyright file and the two changelogs. These are not part of a plain cmake --install.
function(mqnode_package component name section summary description)
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${name})
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/copyright DESTINATION ${documents} COMPONENT ${component} EXCLUDE_FROM_ALL)
  configure_file(cmake/changelog.Debian.in ${PROJECT_BINARY_DIR}/packages/changelog.Debian @ONLY)
  mqnode_install_gzipped(${PROJECT_BINARY_DIR}/packages/changelog.Debian changelog.Debian ${documents} ${component})
  mqnode_install_gzipped(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog ${documents} ${component})

  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${COMPONENT}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
endfunction()

# mqnode_library_package(COMPONENT LIBRARY): the control files of a package with a shared library: what programs linked
# with it depend on, and the trigger that makes the loader notice it.
function(mqnode_library_package component library)
  set(folder ${PROJECT_BINARY_DIR}/packages/${component})
  set(major ${PROJECT_VERSION_MAJOR})
  file(WRITE ${folder}/shlibs "${library} ${major} ${library}${major} (>= ${PROJECT_VERSION})\n")
  file(WRITE ${folder}/triggers "activate-noawait ldconfig\n")
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_CONTROL_EXTRA ${folder}/shlibs ${folder}/triggers PARENT_SCOPE)
endfunction()

mqnode_package(library libmqnode1 libs "message nodes over TCP and UDP" [[
mqnode lets a process create message nodes, endpoints that exchange framed
command messages with peers over TCP or UDP, plain or in a signed envelope,
and wait on many of them at once. There is no server, no thread and no main
loop: the process calls the library.
.
This package has the library that programs load. It takes names from a
companion runtime that a program loads before it: the one in libmqcompanion1,
or its own.]])
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS "libmqcompanion1")
mqnode_library_package(library libmqnode)

mqnode_package(companion libmqcompanion1 libs "companion runtime of the mqnode messaging library" [[
mqnode takes memory, buffers, log, identity, the message encoding and the
signatures from a companion runtime, under fixed names.
.
This package has the one that comes with it: an account of memory by tag,
messages with typed parameters in both byte orders, Ed25519 signatures with
protection against replay.]])
mqnode_library_package(companion libmqcompanion)

mqnode_package(development libmqnode-dev libdevel "message nodes over TCP and UDP, development files" [[
mqnode lets a process create message nodes, endpoints that exchange framed
command messages with peers over TCP or UDP, plain or in a signed envelope,
and wait on many of them at once.
.
This package has the headers for C and C++, their manual pages, the files for
pkg-config (mqnode-host, mqnode, mqnode-companion) and the CMake package
(mqnode).]])
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libmqnode1 (= ${MQNODE_PACKAGE_VERSION}), libmqcompanion1 (= ${MQNODE_PACKAGE_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "mqnode-doc")

mqnode_package(documentation mqnode-doc doc "message nodes over TCP and UDP, documentation" [[
mqnode lets a process create message nodes, endpoints that exchange framed
command messages with peers over TCP or UDP, plain or in a signed envelope,
and wait on many of them at once.
.
This package has the guide, the examples in C and C++, the wire format, and
the reference of the library as pages for a browser.]])
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)

mqnode_package(tools mqnode-tools net "send, receive and take apart mqnode messages" [[
mqcat speaks the protocol of mqnode nodes on the command line: it listens,
sends, measures round trips, takes captured bytes apart field by field, keeps
key files, and explains error codes.
.
A dissector for Wireshark and tshark comes with it.]])
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "tshark | wireshark")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "libmqnode1 (>= ${PROJECT_VERSION}), libmqcompanion1 (>= ${PROJECT_VERSION})")

include(CPack)
