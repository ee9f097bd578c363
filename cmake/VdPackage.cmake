# What an install adds beyond the targets' own rules: the CMake package of
# the libraries (find_package(Vdpostrestore CONFIG), targets Vd::...), and
# the Debian package (cpack -G DEB in the build directory).
include(CMakePackageConfigHelpers)

# Everything an install copies from the build, for builds of selected
# targets that must still install (the demo preset).
get_property(_vd_installed GLOBAL PROPERTY VD_INSTALLED_TARGETS)
add_custom_target(installables)
add_dependencies(installables ${_vd_installed} vdpostrestore kxsim kxsim_preload man_pages)

set(VD_CMAKE_PACKAGE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Vdpostrestore)
install(EXPORT VdTargets NAMESPACE Vd:: FILE VdpostrestoreTargets.cmake
        DESTINATION ${VD_CMAKE_PACKAGE_INSTALL_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VdpostrestoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VdpostrestoreConfig.cmake
  INSTALL_DESTINATION ${VD_CMAKE_PACKAGE_INSTALL_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VdpostrestoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VdpostrestoreConfig.cmake
              ${PROJECT_BINARY_DIR}/VdpostrestoreConfigVersion.cmake
        DESTINATION ${VD_CMAKE_PACKAGE_INSTALL_DIR})

# Installed by the package only (component "deb", not part of a plain
# cmake --install): the tool's default log directory, which does not move
# with the prefix, and the package's copyright and changelog.
set(VD_PACKAGE_MAINTAINER "Vexo vdpostrestore maintainers <vdpostrestore@vexo.example>"
    CACHE STRING "Maintainer field of the Debian package")
install(DIRECTORY DESTINATION /usr/vexo/logs COMPONENT deb EXCLUDE_FROM_ALL)
# The changelog is kept by hand; a release that forgot its entry must not
# ship the previous one's.
set(_vd_debian ${CMAKE_CURRENT_LIST_DIR}/debian)
set(_vd_deb_tree ${PROJECT_BINARY_DIR}/debian)
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
install(FILES ${_vd_debian}/copyright ${_vd_deb_tree}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${PROJECT_NAME} COMPONENT deb EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Vexo")
set(CPACK_PACKAGE_CONTACT "${VD_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "clean up a kxfs file system after a metadata restore")
set(CPACK_PACKAGE_DESCRIPTION
  "vdpostrestore walks a kxfs file system restored from a metadata backup, lists
the files that came back without data in a log and, when asked, removes them.
The package also holds the kxsim driver simulator and the kxdmapi, extapi,
vdpolicy and kxutil libraries with their headers.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# The project's files and the package-only component "deb".
set(CPACK_INSTALL_CMAKE_PROJECTS
    "${PROJECT_BINARY_DIR};${PROJECT_NAME};ALL;/"
    "${PROJECT_BINARY_DIR};${PROJECT_NAME};deb;/")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VD_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# Shared libraries in the loader's path: the ldconfig trigger.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
include(CPack)
