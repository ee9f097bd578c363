# Read by cpack (CPACK_PROJECT_CONFIG_FILE): the Depends of each shared
# library's package, from dpkg-shlibdeps over the debian/ tree that
# VdPackage.cmake lays out in the build directory. Run from there it finds
# the sibling packages' shlibs files as in any debian/ build, and a library
# it cannot attribute to a package is an error, not a dropped dependency.
if(NOT CPACK_GENERATOR STREQUAL "DEB")
  return()
endif()
find_program(VD_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(NOT VD_DPKG_SHLIBDEPS)
  message(FATAL_ERROR "dpkg-shlibdeps not found (Debian package dpkg-dev)")
endif()
get_filename_component(_vd_build_dir "${CPACK_VD_DEB_TREE}" DIRECTORY)
foreach(component IN LISTS CPACK_VD_LIBRARY_COMPONENTS)
  string(TOUPPER ${component} up)
  execute_process(COMMAND ${VD_DPKG_SHLIBDEPS} -O debian/${CPACK_VD_LIBRARY_FILE_${up}}
                  WORKING_DIRECTORY "${_vd_build_dir}"
                  OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE result
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT result EQUAL 0 OR NOT out MATCHES "^shlibs:Depends=(.+)$")
    message(FATAL_ERROR "dpkg-shlibdeps on ${CPACK_VD_LIBRARY_FILE_${up}} failed:\n${err}${out}")
  endif()
  if(err)
    message(WARNING "dpkg-shlibdeps on ${CPACK_VD_LIBRARY_FILE_${up}}:\n${err}")
  endif()
  set(CPACK_DEBIAN_${up}_PACKAGE_DEPENDS "${CMAKE_MATCH_1}")
endforeach()
