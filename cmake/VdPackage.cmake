# What an install adds beyond the targets' own rules: the CMake package of
# the libraries (find_package(Vdpostrestore CONFIG), targets Vd::...), and
# the Debian packages (cpack -G DEB in the build directory, or the package
# workflow preset).
#
# One Debian package per install component:
#   vdpostrestore          the tool, its manual page, its log directory
#   lib<name><soversion>   one per shared library (component <name>)
#   libvdpostrestore-dev   headers, .so links, archives, .pc files, CMake package
#   kxsim                  the driver simulator, its preload library and page
# Files only a package carries (copyright, changelog, lintian overrides, the
# log directory) are EXCLUDE_FROM_ALL: a plain cmake --install leaves them out.
# CPack rather than a debian/ directory for debhelper: the packages are made
# from the very build that the tests ran on, by one workflow preset, with
# nothing but dpkg-dev, and the install rules stay the one description of
# what goes where. What CPack does not do for library packages is made up
# below.
include(CMakePackageConfigHelpers)

# Everything an install copies from the build, for builds of selected
# targets that must still install (the demo preset).
get_property(_vd_installed GLOBAL PROPERTY VD_INSTALLED_TARGETS)
add_custom_target(installables)
add_dependencies(installables ${_vd_installed} vdpostrestore kxsim kxsim_preload man_pages)

set(VD_CMAKE_PACKAGE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Vdpostrestore)
install(EXPORT VdTargets NAMESPACE Vd:: FILE VdpostrestoreTargets.cmake
        DESTINATION ${VD_CMAKE_PACKAGE_INSTALL_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VdpostrestoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VdpostrestoreConfig.cmake
  INSTALL_DESTINATION ${VD_CMAKE_PACKAGE_INSTALL_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VdpostrestoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VdpostrestoreConfig.cmake
              ${PROJECT_BINARY_DIR}/VdpostrestoreConfigVersion.cmake
        DESTINATION ${VD_CMAKE_PACKAGE_INSTALL_DIR} COMPONENT dev)

set(VD_PACKAGE_MAINTAINER "Vexo vdpostrestore maintainers <vdpostrestore@vexo.example>"
    CACHE STRING "Maintainer field of the Debian packages")
set(_vd_debian ${CMAKE_CURRENT_LIST_DIR}/debian)
set(_vd_deb_tree ${PROJECT_BINARY_DIR}/debian)

# The changelog is kept by hand; a release that forgot its entry must not
# ship the previous one's.
file(STRINGS ${_vd_debian}/changelog _vd_changelog_top LIMIT_COUNT 1)
if(NOT _vd_changelog_top MATCHES "^${PROJECT_NAME} \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "cmake/debian/changelog does not start with an entry for "
                      "${PROJECT_NAME} ${PROJECT_VERSION}: ${_vd_changelog_top}")
endif()
file(MAKE_DIRECTORY ${_vd_deb_tree})
execute_process(COMMAND sh -c "gzip -9nc \"$1\" > \"$2\"" sh ${_vd_debian}/changelog
                        ${_vd_deb_tree}/changelog.gz
                RESULT_VARIABLE _vd_gzip_result)
if(NOT _vd_gzip_result EQUAL 0)
  message(FATAL_ERROR "gzip of the package changelog failed")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_vd_debian}/changelog)

# vd_deb_component(<component> <package> <section> <description>)
# The package of an install component: its name, section, description, and
# the files every Debian package carries, plus <package>.lintian-overrides
# from cmake/debian when there is one.
function(vd_deb_component component package section description)
  string(TOUPPER ${component} up)
  set(CPACK_DEBIAN_${up}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${up}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${up}_DESCRIPTION "${description}" PARENT_SCOPE)
  install(FILES ${_vd_debian}/copyright ${_vd_deb_tree}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
  if(EXISTS ${_vd_debian}/${package}.lintian-overrides)
    install(FILES ${_vd_debian}/${package}.lintian-overrides
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${package}
            COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
endfunction()

vd_deb_component(vdpostrestore vdpostrestore admin
"clean up a kxfs file system after a metadata restore
vdpostrestore walks a kxfs file system restored from a metadata backup and
lists, in a log, the files that came back with a size but without data;
with -r it removes them. Run without -r it still strips the policy
engine's per-file information (external representations, the BFST
attribute, event bits) in managed directories; -p keeps it.
The default log directory is /usr/vexo/logs.")
# The tool's default log, which does not move with the prefix. dpkg leaves
# it in place, with the logs an administrator kept there, when it is not
# empty.
install(DIRECTORY DESTINATION /usr/vexo/logs COMPONENT vdpostrestore EXCLUDE_FROM_ALL)

vd_deb_component(kxsim kxsim devel
"user-space simulator of the kxfs data-management driver
kxsim lets vdpostrestore and programs built on the kxdmapi libraries run on
an ordinary directory tree as if it were a mounted kxfs file system: a
preload library plays the driver, and the kxsim command makes simulated
file systems and reads and writes the driver's state of their files.
It is meant for development and testing, not for a production host.")

vd_deb_component(dev libvdpostrestore-dev libdevel
"kxfs data-management libraries - development files
Headers, static libraries, the links to the shared libraries, pkg-config
files (kxdmapi, extapi, vdpolicy, kxutil) and the CMake package
(find_package(Vdpostrestore)) for building applications on the kxdmapi,
extapi, vdpolicy and kxutil libraries.")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS kxsim)

# The shared libraries: a package named after each soname (libkxdmapi.so.1:
# libkxdmapi1) with the ldconfig trigger and the shlibs file through which
# other packages depend on it. The summary is the pkg-config description.
#
# CPack stages each package alone, so its dpkg-shlibdeps run could not see
# the sibling library packages, and it writes ldconfig calls into the
# maintainer scripts of a package with a library in /usr/lib. So CPack
# leaves these packages alone, and VdPackageDepends.cmake runs dpkg-shlibdeps
# over a tree laid out as in a debian/ build: debian/control, and per package
# debian/<package>/DEBIAN/shlibs (the very file the package ships) and the
# library (a link into the build) where the package installs it.
get_property(_vd_libraries GLOBAL PROPERTY VD_SHARED_LIBRARIES)
file(WRITE ${_vd_deb_tree}/control "")
set(CPACK_VD_DEB_TREE ${_vd_deb_tree})
set(CPACK_VD_LIBRARY_COMPONENTS ${_vd_libraries})
foreach(name IN LISTS _vd_libraries)
  get_property(target GLOBAL PROPERTY VD_SHARED_LIBRARY_TARGET_${name})
  get_target_property(soversion ${target} SOVERSION)
  get_target_property(dir ${target} BINARY_DIR)
  set(package lib${name}${soversion})
  set(soname lib${name}.so.${soversion})
  get_property(summary GLOBAL PROPERTY VD_SHARED_LIBRARY_DESCRIPTION_${name})
  string(SUBSTRING "${summary}" 0 1 first)
  string(SUBSTRING "${summary}" 1 -1 rest)
  string(TOLOWER "${first}" first)
  set(summary "${first}${rest}")
  vd_deb_component(${name} ${package} libs "${summary}
This package holds the shared library ${soname}, one of the kxfs
data-management libraries built with vdpostrestore. Applications are built
against it with the libvdpostrestore-dev package.")

  set(root ${_vd_deb_tree}/${package})
  file(MAKE_DIRECTORY ${root}/DEBIAN ${root}/usr/${CMAKE_INSTALL_LIBDIR})
  file(WRITE ${root}/DEBIAN/shlibs "lib${name} ${soversion} ${package} (>= ${PROJECT_VERSION})\n")
  file(CREATE_LINK ${dir}/${soname} ${root}/usr/${CMAKE_INSTALL_LIBDIR}/${soname} SYMBOLIC)

  string(TOUPPER ${name} up)
  set(CPACK_VD_LIBRARY_FILE_${up} ${package}/usr/${CMAKE_INSTALL_LIBDIR}/${soname})
  set(CPACK_DEBIAN_${up}_PACKAGE_SHLIBDEPS OFF)
  set(CPACK_DEBIAN_${up}_PACKAGE_CONTROL_EXTRA ${_vd_debian}/triggers ${root}/DEBIAN/shlibs)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Vexo")
set(CPACK_PACKAGE_CONTACT "${VD_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Whatever the umask of the machine that builds the packages.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE ${PROJECT_NAME})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VD_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# For the tool and the simulator; see above for the libraries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/VdPackageDepends.cmake)
# The development package goes with exactly the libraries of its version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
include(CPack)
cpack_add_component(dev DEPENDS ${_vd_libraries})
