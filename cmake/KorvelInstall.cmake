# Install rules: the libraries, the public headers, a CMake package
# (KorvelReportingConfig.cmake with the components Reporting, Debug and
# Overlay, whose imported targets are Korvel::Reporting, Korvel::Debug and
# Korvel::Overlay, and a version file) and one pkg-config file per library.
include(CMakePackageConfigHelpers)

set(KORVEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/KorvelReporting
    CACHE STRING "Where the CMake package files are installed, relative to the prefix")
set(KORVEL_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    CACHE STRING "Where the pkg-config files are installed, relative to the prefix")

# One export set per package component, so that the config file reads (and
# finds the dependencies of) only the components a host asks for.
set(korvel_component_Reporting korvel_reporting)
set(korvel_component_Debug korvel_debug)
set(korvel_component_Overlay korvel_overlay)
set(KORVEL_CONFIG_COMPONENTS)
foreach(component Reporting Debug Overlay)
  if(NOT TARGET ${korvel_component_${component}})
    continue()
  endif()
  list(APPEND KORVEL_CONFIG_COMPONENTS ${component})
  install(TARGETS ${korvel_component_${component}}
    EXPORT KorvelReporting${component}Targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT KorvelReporting${component}Targets
    NAMESPACE Korvel::
    FILE KorvelReporting${component}Targets.cmake
    DESTINATION ${KORVEL_INSTALL_CMAKEDIR}
    COMPONENT Development)
endforeach()

# Public headers: those of the layers each installed library holds, never
# those under internal/ (the delivery engine's executor, store, transport and
# HTTP client among them).
set(korvel_header_layers foundation platform network beacon pageviews reporters)
if(TARGET korvel_debug)
  list(APPEND korvel_header_layers ui debug)
endif()
if(TARGET korvel_overlay)
  list(APPEND korvel_header_layers overlay)
endif()
set(korvel_source_root ${PROJECT_SOURCE_DIR}/src/korvel)
install(FILES ${korvel_source_root}/Korvel.h
              ${korvel_generated_include}/korvel/version.h
              ${korvel_generated_include}/korvel/export.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korvel COMPONENT Development)
foreach(layer IN LISTS korvel_header_layers)
  file(GLOB headers RELATIVE ${korvel_source_root} CONFIGURE_DEPENDS ${korvel_source_root}/${layer}/*.h)
  list(TRANSFORM headers PREPEND ${korvel_source_root}/)
  install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korvel/${layer}
          COMPONENT Development)
endforeach()

# What the config file needs to know to find the components' dependencies
# again: static libraries carry their private dependencies to the host's
# link, shared ones do not.
if(BUILD_SHARED_LIBS)
  set(KORVEL_CONFIG_STATIC OFF)
else()
  set(KORVEL_CONFIG_STATIC ON)
endif()
set(KORVEL_CONFIG_DEBUG_SDL2 OFF)
if(TARGET korvel_debug AND TARGET PkgConfig::SDL2)
  set(KORVEL_CONFIG_DEBUG_SDL2 ON)
endif()
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/KorvelReportingConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KorvelReportingConfig.cmake
  INSTALL_DESTINATION ${KORVEL_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/KorvelReportingConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KorvelReportingConfig.cmake
              ${PROJECT_BINARY_DIR}/KorvelReportingConfigVersion.cmake
  DESTINATION ${KORVEL_INSTALL_CMAKEDIR}
  COMPONENT Development)

# pkg-config: one file per library, relocatable: the prefix is found from
# the file's own place (${pcfiledir}), so an install copied or moved
# elsewhere, or made with `cmake --install --prefix`, still works. What a
# host's code includes comes through Requires (the libraries whose headers
# the public headers include); what only linking a static library needs goes
# in Libs.private, which pkg-config adds for `pkg-config --static`. Those are
# the link flags of the shared libraries this library was built against
# (libcurl, ICU, ...), not Requires.private: that would make --static ask
# for their own static dependencies (Kerberos, LDAP, ... for libcurl), which
# a library linked against their shared builds does not need.
if(IS_ABSOLUTE "${KORVEL_INSTALL_PKGCONFIGDIR}")
  # Installed outside the prefix: nothing to be relative to.
  set(KORVEL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  set(KORVEL_PC_PREFIX "\${pcfiledir}")
  string(REGEX REPLACE "/+$" "" pc_dir "${KORVEL_INSTALL_PKGCONFIGDIR}")
  string(REPLACE "/" ";" pc_dir_parts "${pc_dir}")
  foreach(part IN LISTS pc_dir_parts)
    if(NOT part STREQUAL "" AND NOT part STREQUAL ".")
      string(APPEND KORVEL_PC_PREFIX "/..")
    endif()
  endforeach()
endif()
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(KORVEL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(KORVEL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
if(BUILD_SHARED_LIBS)
  set(KORVEL_PC_CFLAGS "")
else()
  set(KORVEL_PC_CFLAGS " -DKORVEL_STATIC_DEFINE")
endif()

# korvel_pkg_config(<name> <library> <description> REQUIRES ... PRIVATE_REQUIRES ...
#                   PRIVATE_LIBS ...)
function(korvel_pkg_config name library description)
  cmake_parse_arguments(PARSE_ARGV 3 pc "" "" "REQUIRES;PRIVATE_REQUIRES;PRIVATE_LIBS")
  set(KORVEL_PC_NAME ${name})
  set(KORVEL_PC_LIBRARY ${library})
  set(KORVEL_PC_DESCRIPTION "${description}")
  set(KORVEL_PC_FIELDS "")
  if(pc_REQUIRES)
    list(JOIN pc_REQUIRES ", " requires)
    string(APPEND KORVEL_PC_FIELDS "Requires: ${requires}\n")
  endif()
  if(pc_PRIVATE_REQUIRES)
    list(JOIN pc_PRIVATE_REQUIRES ", " requires)
    string(APPEND KORVEL_PC_FIELDS "Requires.private: ${requires}\n")
  endif()
  if(pc_PRIVATE_LIBS)
    list(JOIN pc_PRIVATE_LIBS " " libs)
    string(APPEND KORVEL_PC_FIELDS "Libs.private: ${libs}\n")
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/korvel.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc
          DESTINATION ${KORVEL_INSTALL_PKGCONFIGDIR} COMPONENT Development)
endfunction()

set(dl_libs)
foreach(lib IN LISTS CMAKE_DL_LIBS)
  list(APPEND dl_libs "-l${lib}")
endforeach()
if(WIN32)
  set(reporting_libs)
  foreach(lib IN LISTS KORVEL_SYSTEM_LIBRARIES)
    list(APPEND reporting_libs "-l${lib}")
  endforeach()
  list(APPEND reporting_libs -pthread)
else()
  set(reporting_libs -lcurl ${ICU_LDFLAGS} -pthread)
endif()
list(REMOVE_DUPLICATES reporting_libs)
korvel_pkg_config(korvel-reporting korvel_reporting "Beacon (analytics) reporting library"
  PRIVATE_LIBS ${reporting_libs})
if(TARGET korvel_debug)
  set(debug_libs ${ICUI18N_LDFLAGS} -lcrypto)
  if(TARGET PkgConfig::SDL2)
    list(APPEND debug_libs ${SDL2_LDFLAGS})
  endif()
  list(REMOVE_DUPLICATES debug_libs)
  korvel_pkg_config(korvel-debug korvel_debug "KorvelReporting developer tools"
    REQUIRES korvel-reporting PRIVATE_LIBS ${debug_libs})
endif()
if(TARGET korvel_overlay)
  korvel_pkg_config(korvel-overlay korvel_overlay "KorvelReporting Dear ImGui debug overlay"
    REQUIRES korvel-debug imgui sdl2 gl PRIVATE_REQUIRES libpng PRIVATE_LIBS ${dl_libs})
endif()
