# Debian packages, one per component: libmqnode1, libmqcompanion1, libmqnode-dev, mqnode-doc, libmqnode-uv1,
# libmqnode-uv-dev, libmqnode-asio-dev, mqnode-tools if mqcat is built, mqnode-bridge if mqbridge is.
# In a build folder, run:
#   cpack -G DEB
# tests/install_test.sh does that and checks the result with lintian. The project has no mail address yet: set
# MQNODE_MAINTAINER to publish packages.
set(MQNODE_MAINTAINER "the mqnode authors <maintainers@mqnode.invalid>" CACHE STRING
  "Maintainer field of the packages")
# Debian revision 0, because Debian has no such package, and our own revision mq1.
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
# Dependencies on other packages are read from the binaries; those among these packages are given below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/before_packing.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/after_packing.cmake)

find_program(GZIP gzip)
string(TIMESTAMP MQNODE_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)

# Installs a file compressed by gzip, without name and time stamp.
function(mqnode_install_gzipped source name folder component)
  set(packed ${PROJECT_BINARY_DIR}/packages/${component}/${name}.gz)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packages/${component})
  execute_process(COMMAND ${GZIP} -9nc ${source} OUTPUT_FILE ${packed} COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${packed} DESTINATION ${folder} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

# mqnode_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION): names the package of a component and adds the files that
# every Debian package has: copyright and two changelogs. A plain cmake --install does not install these.
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

# mqnode_library_package(COMPONENT LIBRARY): adds the control files of a package with a shared library: the dependency
# of programs linked with it, and the trigger that runs ldconfig.
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
This package contains the shared library. A program loads it after a
companion, which provides memory, log and message encoding: the one in
libmqcompanion1, or its own.]])
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS "libmqcompanion1")
mqnode_library_package(library libmqnode)

mqnode_package(companion libmqcompanion1 libs "companion of the mqnode messaging library" [[
mqnode gets memory, buffers, log, identity, message encoding and signatures
from a companion, a library with functions of fixed names.
.
This package contains the companion of the project: memory accounting by tag,
messages with typed parameters in both byte orders, Ed25519 signatures with
replay protection.]])
mqnode_library_package(companion libmqcompanion)

mqnode_package(development libmqnode-dev libdevel "message nodes over TCP and UDP, development files" [[
mqnode lets a process create message nodes, endpoints that exchange framed
command messages with peers over TCP or UDP, plain or in a signed envelope,
and wait on many of them at once.
.
This package contains the headers for C and C++, their manual pages, the
pkg-config files (mqnode-host, mqnode, mqnode-companion) and the CMake package
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

if(TARGET mqnode_uv)
  list(APPEND CPACK_COMPONENTS_ALL uv uv_development)
  mqnode_package(uv libmqnode-uv1 libs "message nodes in a libuv loop" [[
mqnode lets a process create message nodes, endpoints that exchange framed
command messages with peers over TCP or UDP, plain or in a signed envelope.
.
This package has the library that runs nodes in a loop of libuv: events for
messages, back-pressure, time-outs, and ends that lose no message.]])
  set(CPACK_DEBIAN_UV_PACKAGE_DEPENDS "libmqnode1 (>= ${PROJECT_VERSION}), libmqcompanion1 (>= ${PROJECT_VERSION})")
  mqnode_library_package(uv libmqnode-uv)
  mqnode_package(uv_development libmqnode-uv-dev libdevel "message nodes in a libuv loop, development files" [[
mqnode lets a process create message nodes, endpoints that exchange framed
command messages with peers over TCP or UDP, plain or in a signed envelope.
.
This package has what applications need that run nodes in a loop of libuv: the
header mqnode/uv.h, the file for pkg-config (mqnode-uv) and the part of the
CMake package (component uv).]])
  set(CPACK_DEBIAN_UV_DEVELOPMENT_PACKAGE_DEPENDS
    "libmqnode-uv1 (= ${MQNODE_PACKAGE_VERSION}), libmqnode-dev (= ${MQNODE_PACKAGE_VERSION}), libuv1-dev")
endif()

if(TARGET mqnode_asio)
  list(APPEND CPACK_COMPONENTS_ALL asio_development)
  mqnode_package(asio_development libmqnode-asio-dev libdevel "message nodes in coroutines on Asio" [[
mqnode lets a process create message nodes, endpoints that exchange framed
command messages with peers over TCP or UDP, plain or in a signed envelope.
.
This package contains the header mqnode/asio.hpp, with which C++20 coroutines
use nodes in an event loop of Asio, the pkg-config file (mqnode-asio) and the
part of the CMake package (component asio).]])
  set(CPACK_DEBIAN_ASIO_DEVELOPMENT_PACKAGE_DEPENDS
    "libmqnode-dev (= ${MQNODE_PACKAGE_VERSION}), libasio-dev")
endif()

mqnode_package(tools mqnode-tools net "send, receive and decode mqnode messages" [[
mqcat speaks the protocol of mqnode nodes on the command line: it listens,
sends, measures round trips, decodes captured bytes field by field, manages
key files, and explains error codes.
.
It also contains a dissector for Wireshark and tshark.]])
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "tshark | wireshark")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "libmqnode1 (>= ${PROJECT_VERSION}), libmqcompanion1 (>= ${PROJECT_VERSION})")

if(TARGET mqbridge)
  list(APPEND CPACK_COMPONENTS_ALL bridge)
  mqnode_package(bridge mqnode-bridge net "mqnode messages from and to a NATS cluster" [[
mqbridge listens as a node and publishes each message of its clients to a NATS
cluster, whose workers or streams answer. In the other direction, it takes
messages of a subject and sends them to a node.]])
  string(JOIN ", " CPACK_DEBIAN_BRIDGE_PACKAGE_DEPENDS "libmqnode1 (>= ${PROJECT_VERSION})"
    "libmqcompanion1 (>= ${PROJECT_VERSION})" "libmqnode-uv1 (>= ${PROJECT_VERSION})")
endif()

include(CPack)
