# What `cmake --install` puts into a prefix, in three components that are also the Debian packages
# (cmake/OltbPackaging.cmake):
#   runtime      the shared library, under its versioned name with the links libOLVEN...so.0 and libOLVEN...so
#   development  oltb.h, oltb.pc, and the CMake package: find_package(oltb) gives the imported target oltb::oltb
#   tools        oltb and oltb-sim with their manual pages (tools/*/CMakeLists.txt)
# Libraries go to Debian's multiarch directory (lib/x86_64-linux-gnu, the -m32 preset lib/i386-linux-gnu) under
# any prefix, so a 64-bit and a 32-bit build can be installed side by side and /usr/local is on the loader's path.
if(NOT DEFINED CMAKE_INSTALL_LIBDIR AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH "Object code libraries (LIBDIR)")
endif()
include(GNUInstallDirs)

# A target that is installed: `make install` and `make package` build `shipped` only, so it must be among its parts.
function(oltb_ship target)
  add_dependencies(shipped ${target})
endfunction()

# The manual page NAME.1 of the program `target`, made from its --help and the template docs/man/NAME.1.in
# (docs/man/manpage.sh), so that it tells every option the program has; installed compressed with the tools.
function(oltb_man_page target name)
  set(page ${PROJECT_BINARY_DIR}/man/${name}.1)
  set(script ${PROJECT_SOURCE_DIR}/docs/man/manpage.sh)
  set(template ${PROJECT_SOURCE_DIR}/docs/man/${name}.1.in)
  add_custom_command(OUTPUT ${page} ${page}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND bash ${script} $<TARGET_FILE:${target}> ${template} ${page}
    DEPENDS ${target} ${script} ${template}
    COMMENT "Writing the manual page ${name}.1 from ${name} --help" VERBATIM)
  add_custom_target(${name}_man_page ALL DEPENDS ${page}.gz)
  oltb_ship(${name}_man_page)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endfunction()
include(CMakePackageConfigHelpers)

# Applications load the library by its unversioned file name, so that link belongs to the runtime component, not
# to the development one as usual.
oltb_ship(oltb)
install(TARGETS oltb EXPORT oltbTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES api/oltb.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

set(OLTB_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/oltb)
install(EXPORT oltbTargets NAMESPACE oltb:: DESTINATION ${OLTB_CMAKE_DIR} COMPONENT development)
configure_package_config_file(cmake/oltbConfig.cmake.in oltbConfig.cmake INSTALL_DESTINATION ${OLTB_CMAKE_DIR})
# The ABI version (SOVERSION) is the major version: any 0.x satisfies find_package(oltb 0.1).
write_basic_package_version_file(oltbConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/oltbConfig.cmake ${PROJECT_BINARY_DIR}/oltbConfigVersion.cmake
  DESTINATION ${OLTB_CMAKE_DIR} COMPONENT development)

# oltb.pc names the prefix of the installation, which `cmake --install --prefix` chooses only then: the file is
# completed at install time (CPack installs with DESTDIR, so there the prefix is /usr as well).
set(OLTB_PC_PREFIX "@CMAKE_INSTALL_PREFIX@")
configure_file(cmake/oltb.pc.in oltb.pc.in @ONLY)
install(CODE "configure_file(\"${PROJECT_BINARY_DIR}/oltb.pc.in\" \"${PROJECT_BINARY_DIR}/oltb.pc\" @ONLY)"
  COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/oltb.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# Debian's changelog is installed compressed as gz/NAME.gz of the build tree, made when CMake runs (gzip -9n: no
# name, no time stamp, so the same bytes every time); an edit of the source reruns CMake.
function(oltb_gzip source)
  get_filename_component(name ${source} NAME)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/gz)
  execute_process(COMMAND gzip -9n -c ${source} OUTPUT_FILE ${PROJECT_BINARY_DIR}/gz/${name}.gz
    COMMAND_ERROR_IS_FATAL ANY)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
endfunction()
