# Debian packages with CPack (`make package`), one per install component:
#   runtime      libolven.talix3.native.tracebufferlib0   the library (the name follows its SONAME, as Debian asks)
#   development  liboltb-dev                              header, pkg-config file, CMake package
#   tools        oltb-tools                               oltb and oltb-sim
#   python       python3-oltb                             only once python/ installs into that component
# Dependencies on the C and C++ runtimes come from dpkg-shlibdeps, the ones between the packages are exact versions.
set(OLTB_PACKAGE_CONTACT "oltb developers <oltb-developers@example.com>" CACHE STRING
    "Maintainer field of the Debian packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME oltb)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${OLTB_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
# Installed with DESTDIR and the prefix /usr, so that the installation's own files (oltb.pc) name /usr.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# A shlibs file for the package with the library (the only one that has a shared library).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# oltb links the library of the runtime package, which dpkg-shlibdeps finds in the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET oltb_tool)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
list(APPEND CPACK_COMPONENTS_ALL python)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libolven.talix3.native.tracebufferlib${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# dpkg runs ldconfig once after all packages are unpacked (CPack's own postinst and postrm call it as well).
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "client library for the trace buffer of a laser scan controller card
The library connects to the trace buffer server of the card (TCP port 9495),
chooses the traced signals, starts, stops and clears tracing, reads the
decoded events in time order and collects the events between two labels.
Applications load it by its file name libOLVEN.TALIX3.Native.TraceBufferLib.so.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME liboltb-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "trace buffer library of a laser scan controller card (development files)
The header oltb.h with the nineteen functions of the library, the pkg-config
file oltb.pc and the CMake package: find_package(oltb) gives the imported
target oltb::oltb.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME oltb-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "command-line tool and simulator for a laser scan controller's trace buffer
oltb lists the traceable signals, shows and sets the server's configuration,
captures events for a time or acquires those between two labels, and writes
them as CSV, VCD or HDF5. It measures the tracking error, laser timing and
jump settling of the scan heads (oltb analyze) and writes an HTML report page
(oltb report). oltb-sim is a simulated trace buffer server with servo
dynamics that streams marking jobs or replays captures, with fault modes for
tests.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-oltb)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3, python3-numpy")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "Python interface to the trace buffer of a laser scan controller card
The oltb package for Python 3, on top of the shared library: reading and
acquiring events into numpy arrays, loading captures, and the analysis of
oltb analyze.")

# Each package carries usr/share/doc/<package>/copyright and changelog.gz. EXCLUDE_FROM_ALL keeps them out of a
# plain `cmake --install`: only an installation per component, as CPack makes, has them.
configure_file(packaging/changelog.in changelog @ONLY)
oltb_gzip(${PROJECT_BINARY_DIR}/changelog)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/gz/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
# Debian wants the unversioned link in a -dev package; here applications load the library by that name.
install(FILES packaging/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
  RENAME ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} COMPONENT runtime EXCLUDE_FROM_ALL)

include(CPack)
