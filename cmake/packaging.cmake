# Debian packages from the install rules' components, made with
# `cpack -G DEB` in a build configured with CMAKE_INSTALL_PREFIX=/usr (so the
# library directory is the multiarch one):
#   libvexo0     the shared library
#   libvexo-dev  headers, static library, pkg-config and CMake packages
#   vexo         the command-line tool and its man page
# Dependencies on other packages are read from the binaries by
# dpkg-shlibdeps (dpkg-dev).
set(CPACK_PACKAGE_NAME vexo)
set(CPACK_PACKAGE_VENDOR "vexo developers")
set(CPACK_PACKAGE_CONTACT "vexo developers <vexo@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Unix back end of a portable I/O library")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL runtime development tool)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# The tool links the library from the runtime package, which no installed
# package provides yet: dpkg-shlibdeps looks it up in the staged runtime tree
# instead, and the dependency is stated below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  ${CPACK_PACKAGE_DIRECTORY}/_CPack_Packages/Linux/DEB/${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-Linux/runtime/${CMAKE_INSTALL_FULL_LIBDIR})

set(vexo_deb_runtime libvexo${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${vexo_deb_runtime})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Unix back end of a portable I/O library - shared library
 UTF-8 file names (NFC, Latin-1 rescue), file status, directory listings,
 path operations, OS file handles, child processes and the environment,
 behind a C interface.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvexo-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${vexo_deb_runtime} (= ${PROJECT_VERSION}), libicu-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Unix back end of a portable I/O library - development files
 C headers, the static library, vexo.pc for pkg-config and the CMake
 package (find_package(vexo) gives vexo::vexo and vexo::vexo_static).")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vexo)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${vexo_deb_runtime} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "Unix back end of a portable I/O library - command-line tool
 vexo shows what the library does with this system's file names, files,
 directories, processes and environment. See vexo(1).")

include(CPack)
