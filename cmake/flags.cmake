# Flags of the whole build, and those of the shared libraries.

# Hardening. tests/checks/elf.sh verifies the result and documents which measures are not taken.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -fstack-protector-strong -fstack-clash-protection)
add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
# Not with fuzzers, which define system calls of their own: clang rejects these as redefinitions of the fortified ones.
if(NOT MQNODE_SANITIZE AND NOT MQNODE_FUZZ)
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
endif()
if(MQNODE_SANITIZE)
  add_compile_options(-fsanitize=${MQNODE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${MQNODE_SANITIZE})
endif()
if(MQNODE_FUZZ AND MQNODE_SANITIZE)
  # The vptr and function checks need type information, which the libraries are built without.
  add_compile_options(-fsanitize=fuzzer-no-link -fno-sanitize=vptr,function)
endif()

# The output of an instrumented build needs additional libraries and is neither installed nor packaged.
set(MQNODE_INSTRUMENTED OFF)
if(MQNODE_SANITIZE OR MQNODE_COVERAGE OR MQNODE_FUZZ)
  set(MQNODE_INSTRUMENTED ON)
endif()

# Counts branches in a library. Threads count concurrently, hence the atomic update.
function(mqnode_count_branches target)
  if(MQNODE_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic -Dalways_inline=noinline)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()

# Flat C interface, everything else hidden; no exceptions, no RTTI. Calls of exported functions inside the library may
# be direct (-fno-semantic-interposition); the addresses of these functions and the exported variables are still those
# that the application sees. The fields of a record are not stored as vectors (-fno-tree-slp-vectorize): collecting them
# in a vector register costs more than it saves.
function(mqnode_library_flags target)
  set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>
    -fno-semantic-interposition -fno-plt -fno-tree-slp-vectorize -Wconversion)
  mqnode_count_branches(${target})
endfunction()

# Installs a program. In the build tree it finds the libraries by an absolute search path, which the installation
# removes. CMake's default, a padded path that the installation replaces, would have an empty element at its end in the
# build tree, which means the current directory.
function(mqnode_install_program target component)
  set_target_properties(${target} PROPERTIES
    BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH ${CMAKE_LIBRARY_OUTPUT_DIRECTORY} INSTALL_RPATH_USE_LINK_PATH ON)
  install(TARGETS ${target} RUNTIME COMPONENT ${component})
  install(CODE "file(RPATH_REMOVE
    FILE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/$<TARGET_FILE_NAME:${target}>\")"
    COMPONENT ${component})
endfunction()
