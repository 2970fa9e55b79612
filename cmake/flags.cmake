# Flags that the whole build shares, and those of the shared libraries.

# What makes a fault harder to use; tests/checks/elf.sh looks at the outcome and says what is left out.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -fstack-protector-strong -fstack-clash-protection)
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
# Not where fuzzers bring their own system calls: clang takes these for second definitions of the fortified ones.
if(NOT MQNODE_SANITIZE AND NOT MQNODE_FUZZ)
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
endif()
if(MQNODE_SANITIZE)
  add_compile_options(-fsanitize=${MQNODE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${MQNODE_SANITIZE})
endif()
if(MQNODE_FUZZ AND MQNODE_SANITIZE)
  # Both need the type information that the libraries are built without.
  add_compile_options(-fsanitize=fuzzer-no-link -fno-sanitize=vptr,function)
endif()

# What such a build makes needs more than a plain one and is neither installed nor packed.
set(MQNODE_INSTRUMENTED OFF)
if(MQNODE_SANITIZE OR MQNODE_COVERAGE OR MQNODE_FUZZ)
  set(MQNODE_INSTRUMENTED ON)
endif()

# Counts branches in a library. Several processes and threads count at once.
function(mqnode_count_branches target)
  if(MQNODE_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic -Dalways_inline=noinline)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()

# Flat C interface, everything else hidden; no exceptions, no RTTI. Exported functions may be called directly from
# within the library (-fno-semantic-interposition), while their addresses and the exported globals stay what the host
# sees. Records are filled from registers: collecting their fields in a vector register first costs more than it saves.
function(mqnode_library_flags target)
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>
    -fno-semantic-interposition -fno-plt -fno-tree-slp-vectorize -Wconversion)
  mqnode_count_branches(${target})
endfunction()

# A program that finds the libraries of the build tree by an absolute search path and is installed without one. CMake's
# own way, a path that the installation replaces, ends the path in the build tree with an empty element, which names the
# current directory.
function(mqnode_install_program target component)
  set_target_properties(${target} PROPERTIES
    BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH ${CMAKE_LIBRARY_OUTPUT_DIRECTORY} INSTALL_RPATH_USE_LINK_PATH ON)
  install(TARGETS ${target} RUNTIME COMPONENT ${component})
  install(CODE "file(RPATH_REMOVE
    FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/$<TARGET_FILE_NAME:${target}>\")"
    COMPONENT ${component})
endfunction()
