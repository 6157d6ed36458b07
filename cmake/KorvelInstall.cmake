# Install rules: the libraries, the public headers, a CMake package
# (KorvelReportingConfig.cmake with the imported targets Korvel::Reporting,
# Korvel::Debug, Korvel::Overlay and a version file) and one pkg-config file
# per library.
include(CMakePackageConfigHelpers)

set(KORVEL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/KorvelReporting
    CACHE STRING "Where the CMake package files are installed, relative to the prefix")
set(KORVEL_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    CACHE STRING "Where the pkg-config files are installed, relative to the prefix")

install(TARGETS ${korvel_installed_targets}
  EXPORT KorvelReportingTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

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

install(EXPORT KorvelReportingTargets
  NAMESPACE Korvel::
  FILE KorvelReportingTargets.cmake
  DESTINATION ${KORVEL_INSTALL_CMAKEDIR}
  COMPONENT Development)

# What the config file finds again for the targets' own dependencies.
set(KORVEL_CONFIG_DEBUG_TOOLS OFF)
set(KORVEL_CONFIG_DEBUG_SDL2 OFF)
set(KORVEL_CONFIG_OVERLAY OFF)
if(TARGET korvel_debug)
  set(KORVEL_CONFIG_DEBUG_TOOLS ON)
  if(TARGET PkgConfig::SDL2)
    set(KORVEL_CONFIG_DEBUG_SDL2 ON)
  endif()
endif()
if(TARGET korvel_overlay)
  set(KORVEL_CONFIG_OVERLAY ON)
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

# pkg-config: a static library's dependencies go in Requires/Libs (a plain
# `pkg-config --libs` must be enough to link it), a shared one's in the
# private fields.
if(BUILD_SHARED_LIBS)
  set(KORVEL_PC_REQUIRES_FIELD "Requires.private")
  set(KORVEL_PC_LIBS_FIELD "Libs.private")
  set(KORVEL_PC_CFLAGS "")
else()
  set(KORVEL_PC_REQUIRES_FIELD "Requires")
  set(KORVEL_PC_LIBS_FIELD "Libs")
  set(KORVEL_PC_CFLAGS " -DKORVEL_STATIC_DEFINE")
endif()
# Relative to ${prefix} when the install directories are, so a relocated
# prefix still works.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(KORVEL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(KORVEL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()

function(korvel_pkg_config name library description requires private_libs)
  set(KORVEL_PC_NAME ${name})
  set(KORVEL_PC_LIBRARY ${library})
  set(KORVEL_PC_DESCRIPTION "${description}")
  set(KORVEL_PC_REQUIRES "${requires}")
  set(KORVEL_PC_PRIVATE_LIBS "${private_libs}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/korvel.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${name}.pc
          DESTINATION ${KORVEL_INSTALL_PKGCONFIGDIR} COMPONENT Development)
endfunction()

korvel_pkg_config(korvel-reporting korvel_reporting
  "Beacon (analytics) reporting library" "nlohmann_json, libcurl, icu-uc" "-pthread")
if(TARGET korvel_debug)
  set(debug_requires "korvel-reporting, icu-i18n, libcrypto")
  if(TARGET PkgConfig::SDL2)
    string(APPEND debug_requires ", sdl2")
  endif()
  korvel_pkg_config(korvel-debug korvel_debug "KorvelReporting developer tools" "${debug_requires}" "")
endif()
if(TARGET korvel_overlay)
  korvel_pkg_config(korvel-overlay korvel_overlay "KorvelReporting Dear ImGui debug overlay"
    "korvel-debug, imgui, sdl2, gl, libpng" "${CMAKE_DL_LIBS}")
endif()
