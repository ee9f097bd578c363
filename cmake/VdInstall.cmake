# Installed libraries. Each library is compiled once (an OBJECT library,
# position-independent) and linked twice: lib<name>.a for the tool and the
# tests, lib<name>.so.<version> for applications. Both go into the export set
# VdTargets (namespace Vd::, see VdPackage.cmake): Vd::<name> is the shared
# library, Vd::<name>_static the archive. Each also gets <name>.pc.
include_guard(GLOBAL)
include(GNUInstallDirs)

# vd_add_library(<target> NAME <installed name> DESCRIPTION <text> SOURCES <files...>
#                [DEPENDS <targets...>] [PRIVATE_DEPENDS <targets...>]
#                [REQUIRES <pc names...>] [REQUIRES_PRIVATE <pc names...>]
#                [PUBLIC_INCLUDE <dir>])
# Makes <target> (static; the name the project links) and <target>_shared.
# DEPENDS are what the public headers use, PRIVATE_DEPENDS what only the
# sources do: project libraries (static; their _shared twin is used for the
# shared library) or imported targets such as Threads::Threads.
# PUBLIC_INCLUDE is a directory of installed headers kept apart from the
# sources, searched before the top of the tree.
function(vd_add_library target)
  cmake_parse_arguments(ARG "" "NAME;DESCRIPTION;PUBLIC_INCLUDE" "SOURCES;DEPENDS;PRIVATE_DEPENDS;REQUIRES;REQUIRES_PRIVATE"
                        ${ARGN})
  add_library(${target}_objects OBJECT ${ARG_SOURCES})
  target_include_directories(${target}_objects PRIVATE ${ARG_PUBLIC_INCLUDE} ${VD_INCLUDE_ROOT})
  target_link_libraries(${target}_objects PRIVATE ${ARG_DEPENDS} ${ARG_PRIVATE_DEPENDS}
                        vd_strict_warnings)

  foreach(kind DEPENDS PRIVATE_DEPENDS)
    set(shared_${kind} "")
    foreach(dep IN LISTS ARG_${kind})
      if(TARGET ${dep}_shared)
        list(APPEND shared_${kind} ${dep}_shared)
      else()
        list(APPEND shared_${kind} ${dep})
      endif()
    endforeach()
  endforeach()

  add_library(${target} STATIC $<TARGET_OBJECTS:${target}_objects>)
  target_link_libraries(${target} PUBLIC ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${ARG_NAME} EXPORT_NAME ${ARG_NAME}_static)

  add_library(${target}_shared SHARED $<TARGET_OBJECTS:${target}_objects>)
  target_link_libraries(${target}_shared PUBLIC ${shared_DEPENDS} PRIVATE ${shared_PRIVATE_DEPENDS})
  set_target_properties(${target}_shared PROPERTIES
    OUTPUT_NAME ${ARG_NAME} EXPORT_NAME ${ARG_NAME}
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    # Installed, each finds the others beside it (but see the install rules).
    INSTALL_RPATH "$ORIGIN")

  foreach(t ${target} ${target}_shared)
    if(ARG_PUBLIC_INCLUDE)
      target_include_directories(${t} PUBLIC $<BUILD_INTERFACE:${ARG_PUBLIC_INCLUDE}>)
    endif()
    target_include_directories(${t} PUBLIC
      $<BUILD_INTERFACE:${VD_INCLUDE_ROOT}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  endforeach()

  set_property(GLOBAL APPEND PROPERTY VD_INSTALLED_TARGETS ${target} ${target}_shared)
  # The shared library is the runtime component <installed name> (a package
  # of its own); its unversioned link and the archive are for developers.
  set_property(GLOBAL APPEND PROPERTY VD_SHARED_LIBRARIES ${ARG_NAME})
  set_property(GLOBAL PROPERTY VD_SHARED_LIBRARY_TARGET_${ARG_NAME} ${target}_shared)
  set_property(GLOBAL PROPERTY VD_SHARED_LIBRARY_DESCRIPTION_${ARG_NAME} "${ARG_DESCRIPTION}")
  install(TARGETS ${target} ${target}_shared EXPORT VdTargets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${ARG_NAME} NAMELINK_COMPONENT dev
          INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  # $ORIGIN serves installs into a prefix of one's own. In a directory that
  # the loader searches anyway (/usr/lib/<triplet> of the packages) it is
  # redundant, and Debian wants no search path in a public library there.
  vd_installed_libdir(libdir)
  install(CODE "
    cmake_path(SET _vd_libdir NORMALIZE \"${libdir}\")
    set(_vd_loader_dirs \"${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES}\")
    list(FIND _vd_loader_dirs \"\${_vd_libdir}\" _vd_at)
    if(NOT _vd_at EQUAL -1)
      file(RPATH_REMOVE FILE \"\$ENV{DESTDIR}\${_vd_libdir}/$<TARGET_FILE_NAME:${target}_shared>\")
    endif()" COMPONENT ${ARG_NAME})
  vd_install_pkgconfig(${ARG_NAME} "${ARG_DESCRIPTION}" "${ARG_REQUIRES}"
                       "${ARG_REQUIRES_PRIVATE}")
endfunction()

# vd_installed_libdir(<var>): the library directory as an install script
# sees it, under the prefix of the install run unless it is absolute.
function(vd_installed_libdir var)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(${var} "${CMAKE_INSTALL_LIBDIR}" PARENT_SCOPE)
  else()
    set(${var} "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}" PARENT_SCOPE)
  endif()
endfunction()

# vd_install_pkgconfig(<name> <description> <requires> <requires.private>)
# The prefix is the one of the install run (cmake --install --prefix, or the
# package's), so the file is completed at install time.
function(vd_install_pkgconfig name description requires requires_private)
  foreach(kind LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
      set(VD_PC_${kind} "${CMAKE_INSTALL_${kind}}")
    else()
      set(VD_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif()
  endforeach()
  set(VD_PC_NAME ${name})
  set(VD_PC_DESCRIPTION "${description}")
  list(JOIN requires ", " VD_PC_REQUIRES)
  list(JOIN requires_private ", " VD_PC_REQUIRES_PRIVATE)
  set(VD_PC_PREFIX "@VD_PC_INSTALL_PREFIX@")  # left for the install step
  set(template ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc.in)
  configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/vd_library.pc.in ${template} @ONLY)

  vd_installed_libdir(libdir)
  set(destination "${libdir}/pkgconfig")
  # One scratch file per destination: installs into different prefixes may
  # run at the same time (the install test, the package check).
  install(CODE "
    string(SHA1 _vd_pc_scratch \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
    set(VD_PC_INSTALL_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    configure_file(\"${template}\"
                   \"${PROJECT_BINARY_DIR}/pkgconfig/\${_vd_pc_scratch}/${name}.pc\" @ONLY)
    file(INSTALL \"${PROJECT_BINARY_DIR}/pkgconfig/\${_vd_pc_scratch}/${name}.pc\"
         DESTINATION \"${destination}\")" COMPONENT dev)
endfunction()
