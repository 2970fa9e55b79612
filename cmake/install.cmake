# Installation, in the components library, companion, development, documentation and tools (see also tools/), and uv,
# uv_development and asio_development if the engines were found.
# Headers go to include/mqnode-1; pkg-config files and the CMake package go to folders below that of the libraries. Both
# refer to other files relative to their own location: an installed tree may be moved.
include(CMakePackageConfigHelpers)

# On Debian, libraries go to the folder of their architecture under every prefix, not only /usr, so that packages can be
# made from any build.
set(libdir ${CMAKE_INSTALL_LIBDIR})
if(libdir STREQUAL lib AND CMAKE_LIBRARY_ARCHITECTURE AND EXISTS /etc/debian_version)
  set(libdir lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
set(MQNODE_LIBDIR ${libdir} CACHE STRING "Where libraries are installed, below the prefix")

set(MQNODE_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/mqnode-${PROJECT_VERSION_MAJOR})
set(MQNODE_CMAKEDIR ${MQNODE_LIBDIR}/cmake/mqnode)
set(MQNODE_PCDIR ${MQNODE_LIBDIR}/pkgconfig)

foreach(folder mqnode queue runtime sockutil socksin companion)
  install(DIRECTORY ${folder}/ DESTINATION ${MQNODE_INCLUDEDIR}/${folder} COMPONENT development
    FILES_MATCHING PATTERN *.h)
endforeach()
install(DIRECTORY cpp/mqnode/ DESTINATION ${MQNODE_INCLUDEDIR}/mqnode COMPONENT development)
install(FILES loop/mqnode/limits.h loop/mqnode/step.h DESTINATION ${MQNODE_INCLUDEDIR}/mqnode COMPONENT development)

# In the build tree the headers are found from the top folder and from cpp/, in an installed one from include/mqnode-1.
set_target_properties(mqnode mqcompanion PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
target_include_directories(mqnode_host INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/cpp>)
set_target_properties(mqcompanion PROPERTIES EXPORT_NAME companion)
set_target_properties(mqnode_host PROPERTIES EXPORT_NAME host)

install(TARGETS mqnode EXPORT mqnode
  LIBRARY DESTINATION ${MQNODE_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${MQNODE_INCLUDEDIR})
install(TARGETS mqcompanion EXPORT mqnode
  LIBRARY DESTINATION ${MQNODE_LIBDIR} COMPONENT companion NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${MQNODE_INCLUDEDIR})
install(TARGETS mqnode_host EXPORT mqnode)
install(EXPORT mqnode FILE mqnode-targets.cmake NAMESPACE mqnode:: DESTINATION ${MQNODE_CMAKEDIR}
  COMPONENT development)

if(TARGET mqnode_uv)
  install(FILES loop/mqnode/uv.h DESTINATION ${MQNODE_INCLUDEDIR}/mqnode COMPONENT uv_development)
  install(TARGETS mqnode_uv EXPORT mqnode-uv
    LIBRARY DESTINATION ${MQNODE_LIBDIR} COMPONENT uv NAMELINK_COMPONENT uv_development
    INCLUDES DESTINATION ${MQNODE_INCLUDEDIR})
  install(EXPORT mqnode-uv FILE mqnode-uv-targets.cmake NAMESPACE mqnode:: DESTINATION ${MQNODE_CMAKEDIR}
    COMPONENT uv_development)
endif()

if(TARGET mqnode_asio)
  install(FILES loop/mqnode/asio.hpp DESTINATION ${MQNODE_INCLUDEDIR}/mqnode COMPONENT asio_development)
  install(TARGETS mqnode_asio EXPORT mqnode-asio INCLUDES DESTINATION ${MQNODE_INCLUDEDIR})
  install(EXPORT mqnode-asio FILE mqnode-asio-targets.cmake NAMESPACE mqnode:: DESTINATION ${MQNODE_CMAKEDIR}
    COMPONENT asio_development)
endif()

configure_package_config_file(cmake/mqnode-config.cmake.in ${PROJECT_BINARY_DIR}/cmake/mqnode-config.cmake
  INSTALL_DESTINATION ${MQNODE_CMAKEDIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/mqnode-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/mqnode-config.cmake ${PROJECT_BINARY_DIR}/cmake/mqnode-config-version.cmake
  DESTINATION ${MQNODE_CMAKEDIR} COMPONENT development)

file(RELATIVE_PATH MQNODE_PC_PREFIX /prefix/${MQNODE_PCDIR} /prefix)
string(REGEX REPLACE "/$" "" MQNODE_PC_PREFIX ${MQNODE_PC_PREFIX})
# mqnode_pkg_config(NAME COMPONENT)
function(mqnode_pkg_config name component)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/cmake/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/cmake/${name}.pc DESTINATION ${MQNODE_PCDIR} COMPONENT ${component})
endfunction()
foreach(name mqnode mqnode-companion mqnode-host)
  mqnode_pkg_config(${name} development)
endforeach()
foreach(engine uv asio)
  if(TARGET mqnode_${engine})
    mqnode_pkg_config(mqnode-${engine} ${engine}_development)
  endif()
endforeach()

# The dissector, where Wireshark and tshark look for plugins.
if(MQNODE_BUILD_TOOLS)
  install(FILES tools/wireshark/mqnode.lua DESTINATION ${MQNODE_LIBDIR}/wireshark/plugins COMPONENT tools)
endif()

# Documents and examples, in one folder so that the links between them work. The pages for a browser are made when their
# component is installed, as the packages do it: cmake --install build/release --component documentation
if(PROJECT_IS_TOP_LEVEL)
  install(FILES README.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
  install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation PATTERN reference EXCLUDE)
  install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
    PATTERN examples/CMakeLists.txt EXCLUDE)
  if(DOXYGEN)
    install(CODE "execute_process(COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET COMMAND
      ${PROJECT_SOURCE_DIR}/docs/reference/make.sh html ${reference} ${PROJECT_VERSION})"
      COMPONENT documentation EXCLUDE_FROM_ALL)
    install(DIRECTORY ${reference}/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation EXCLUDE_FROM_ALL)
  endif()
endif()
