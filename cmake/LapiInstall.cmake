# Install rules: programs, the client library with its headers, lapi.pc and
# the CMake package, the man pages and the systemd unit. Included by the top
# CMakeLists.txt after every target exists.
include(CMakePackageConfigHelpers)

# ---- programs ---------------------------------------------------------------
install(TARGETS lapi_srv RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(TARGET lapi_srv_host)
  install(TARGETS lapi_srv_host RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
foreach(tool lapi_tool bpsim lapi_push)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# ---- client library -----------------------------------------------------------
if(TARGET lapi_shared)
  install(TARGETS lapi lapi_shared EXPORT lapiTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES ${LAPI_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lapi)

  set(LAPI_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/lapi)
  install(EXPORT lapiTargets NAMESPACE lapi:: DESTINATION ${LAPI_CMAKE_DIR})
  configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/lapiConfig.cmake.in
    ${CMAKE_BINARY_DIR}/lapiConfig.cmake INSTALL_DESTINATION ${LAPI_CMAKE_DIR})
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/lapiConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_BINARY_DIR}/lapiConfig.cmake ${CMAKE_BINARY_DIR}/lapiConfigVersion.cmake
    DESTINATION ${LAPI_CMAKE_DIR})

  # lapi.pc names its prefix relative to its own folder, so an installed
  # tree works wherever it is unpacked (DESTDIR, a sysroot, a copy).
  file(RELATIVE_PATH LAPI_PC_TO_PREFIX
    /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  string(REGEX REPLACE "/$" "" LAPI_PC_TO_PREFIX "${LAPI_PC_TO_PREFIX}")
  configure_file(${CMAKE_SOURCE_DIR}/cmake/lapi.pc.in ${CMAKE_BINARY_DIR}/lapi.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/lapi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()

# ---- systemd unit -------------------------------------------------------------
set(LAPI_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
  "Folder of the systemd unit, relative to the install prefix")
configure_file(${CMAKE_SOURCE_DIR}/dist/lapi_srv.service.in ${CMAKE_BINARY_DIR}/lapi_srv.service @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/lapi_srv.service DESTINATION ${LAPI_SYSTEMD_UNIT_DIR})

# ---- man pages ----------------------------------------------------------------
# Written for scdoc; each man/NAME.SECTION.scd becomes man/NAME.SECTION in
# the build folder.
find_program(LAPI_SCDOC scdoc)
file(GLOB LAPI_MAN_SRC CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/man/*.scd)
set(LAPI_MAN_PAGES)
if(LAPI_SCDOC)
  foreach(src ${LAPI_MAN_SRC})
    get_filename_component(page ${src} NAME_WLE)
    string(REGEX REPLACE ".*\\.([1-9])$" "\\1" section ${page})
    set(out ${CMAKE_BINARY_DIR}/man/${page})
    add_custom_command(OUTPUT ${out}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
      COMMAND ${LAPI_SCDOC} < ${src} > ${out}
      DEPENDS ${src}
      COMMENT "scdoc ${page}"
      VERBATIM)
    list(APPEND LAPI_MAN_PAGES ${out})
    install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  endforeach()
  add_custom_target(lapi_man ALL DEPENDS ${LAPI_MAN_PAGES})
else()
  message(STATUS "scdoc not found: no man pages (scripts/deps.sh installs it)")
endif()
