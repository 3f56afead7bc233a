# Debian packages of what VokInstall.cmake installs: `cpack` in the build folder.
#
#     broker    vok-broker             the daemon with its unit, vokctl
#     library   libvokbroker5          for host processes
#     dev       libvokbroker-dev       to build EMPs, clients and hosts
#     examples  vok-broker-examples    sources and programs, and an EMP that can be opened

set(VOK_PACKAGE_CONTACT "Maintainers of vok-broker <vok-broker@example.org>" CACHE STRING
    "Maintainer of the packages, as Name <address>")
set(VOK_PACKAGE_RELEASE 1 CACHE STRING "Release of the packages: 1 is the first of a version")

set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vok-broker)
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has one of its own
set(CPACK_PACKAGE_CONTACT "${VOK_PACKAGE_CONTACT}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL broker library dev)
if(TARGET example-emp)
  list(APPEND CPACK_COMPONENTS_ALL examples)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VOK_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SOURCE vok-broker)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where it finds the host's library, which no installed package has; and those of a toolchain.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}
                                                ${VOK_DEB_LIBRARIES})
if(VOK_DEB_ARCHITECTURE)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${VOK_DEB_ARCHITECTURE})
endif()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(vok_deb_version ${PROJECT_VERSION}-${VOK_PACKAGE_RELEASE})

# Of the packages' changelog, and of every file in them: the newest change of the sources, so that the
# same sources make the same packages.
set(VOK_PACKAGE_EPOCH "" CACHE STRING
    "Time of the packages, in seconds since 1970; empty: that of the last commit, or of CHANGELOG.md")
set(vok_epoch "${VOK_PACKAGE_EPOCH}")
if(NOT vok_epoch)
  execute_process(COMMAND git -C ${PROJECT_SOURCE_DIR} log -1 --format=%ct
    OUTPUT_VARIABLE vok_epoch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT vok_epoch)
  file(TIMESTAMP ${PROJECT_SOURCE_DIR}/CHANGELOG.md vok_epoch %s UTC)
endif()
block(SCOPE_FOR VARIABLES PROPAGATE vok_changelog_date)
  set(before "$ENV{SOURCE_DATE_EPOCH}")
  set(ENV{SOURCE_DATE_EPOCH} ${vok_epoch})
  string(TIMESTAMP vok_changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
  set(ENV{SOURCE_DATE_EPOCH} "${before}")  # an empty one is none
endblock()

# vok_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION [DEPENDS TEXT] [SUGGESTS TEXT]
#             [CONTROL FILE...])
macro(vok_package component name section summary description)
  cmake_parse_arguments(vok_package "" "DEPENDS;SUGGESTS" "CONTROL" ${ARGN})
  string(TOUPPER ${component} vok_upper)
  set(CPACK_DEBIAN_${vok_upper}_DESCRIPTION "${summary}\n${description}")
  set(CPACK_DEBIAN_${vok_upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${vok_upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${vok_upper}_PACKAGE_PRIORITY optional)
  set(CPACK_DEBIAN_${vok_upper}_PACKAGE_DEPENDS "${vok_package_DEPENDS}")
  set(CPACK_DEBIAN_${vok_upper}_PACKAGE_SUGGESTS "${vok_package_SUGGESTS}")
  list(TRANSFORM vok_package_CONTROL PREPEND ${vok_packaging}/debian/)
  set(CPACK_DEBIAN_${vok_upper}_PACKAGE_CONTROL_EXTRA "${vok_package_CONTROL}")
endmacro()

vok_package(broker vok-broker admin
  "service broker of a TV platform"
  "Clients ask the broker on the loopback interface for service modules (EMPs).
It finds out where an EMP lives, mounts its image, starts its process, waits
until it reports its port, and hands out the address; it knows who uses what,
and cleans up behind them.
.
This package contains the daemon and its unit, and vokctl, which asks a broker
what it knows, opens EMPs through it, and looks for what keeps it from serving."
  SUGGESTS "vok-broker-examples, libvokbroker-dev"
  CONTROL postinst prerm postrm)
vok_package(library libvokbroker${PROJECT_VERSION_MAJOR} libs
  "service broker of a TV platform, as a library"
  "The broker for a process that has other things to do, and serves clients of
EMPs besides.
.
This package contains the shared library."
  CONTROL triggers)
vok_package(dev libvokbroker-dev libdevel
  "service broker of a TV platform, development files"
  "The definitions of the services, from which Thrift makes code for EMPs,
launchers and clients in any of its languages; headers of the library for host
processes; a CMake package and a pkg-config file.
.
The library's headers are for hosts built with the same compiler."
  DEPENDS "libvokbroker${PROJECT_VERSION_MAJOR} (= ${vok_deb_version}), libthrift-dev, thrift-compiler, libboost-dev"
  SUGGESTS "vok-broker-examples, pkg-config, cmake, python3-thrift")
vok_package(examples vok-broker-examples misc
  "service broker of a TV platform, examples"
  "EMPs, launchers, clients in C++ and Python, and a host process, as sources to
copy from and as programs to try; and an EMP \"Example\" where the broker finds
it."
  DEPENDS "vok-broker (= ${vok_deb_version}), libvokbroker${PROJECT_VERSION_MAJOR} (= ${vok_deb_version})"
  SUGGESTS "libvokbroker-dev, python3-thrift, python3-six"
  CONTROL examples/postinst examples/postrm)

# CPack takes along what begins with its name: for packaging/Finish.cmake.
set(CPACK_PRE_BUILD_SCRIPTS ${vok_packaging}/Finish.cmake)
set(CPACK_VOK_EPOCH ${vok_epoch})
set(CPACK_VOK_PACKAGING ${vok_packaging})
set(CPACK_VOK_CHANGELOG ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
set(CPACK_VOK_CHANGELOG_DEBIAN ${PROJECT_BINARY_DIR}/installed/changelog.Debian)
configure_file(${vok_packaging}/debian/changelog.in ${CPACK_VOK_CHANGELOG_DEBIAN} @ONLY)

include(CPack)
