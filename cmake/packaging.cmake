# Installation by component and the Debian packages made from it:
#   libzelo0     the shared library (its SONAME is libzelo.so.0)
#   libzelo-dev  headers, zelo.pc and the unversioned link
#   zelo         the daemon, zeloctl, the systemd unit, manual pages, bash
#                completion, and on a development machine the host platform
#                library the programs link (a controller image has its own),
#                and the D-Bus platform library where libsystemd is

# Manual pages from their scdoc sources, compressed as Debian wants them.
find_program(ZELO_SCDOC scdoc)
find_program(ZELO_GZIP gzip)
set(ZELO_MAN_PAGES "")
if(ZELO_SCDOC AND ZELO_GZIP)
  foreach(page zelo.8 zeloctl.1 zelo-dbus.8)
    set(out ${CMAKE_CURRENT_BINARY_DIR}/man/${page})
    add_custom_command(OUTPUT ${out}.gz
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
      COMMAND ${ZELO_SCDOC} < ${PROJECT_SOURCE_DIR}/doc/${page}.scd > ${out}
      COMMAND ${ZELO_GZIP} -9nf ${out}
      DEPENDS ${PROJECT_SOURCE_DIR}/doc/${page}.scd VERBATIM)
    list(APPEND ZELO_MAN_PAGES ${out}.gz)
  endforeach()
  add_custom_target(man ALL DEPENDS ${ZELO_MAN_PAGES})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/man/zelo.8.gz
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT daemon)
  if(TARGET zelo-dbus)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/man/zelo-dbus.8.gz
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT daemon)
  endif()
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/man/zeloctl.1.gz
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT daemon)
else()
  # A build without them is fine; an installation or a package never ships
  # without its manual.
  message(STATUS "scdoc or gzip not found: no manual pages, so no installation or package")
  install(CODE "message(FATAL_ERROR \"The manual pages need scdoc and gzip (apt-get install scdoc gzip), then cmake again.\")"
          COMPONENT daemon)
endif()

install(TARGETS zelo LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib
        NAMELINK_COMPONENT dev)
if("zelo_platform" IN_LIST ZELO_PLATFORM_LIBS)
  install(TARGETS zelo_platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT daemon
          NAMELINK_SKIP)
endif()
# The platform over the controller's D-Bus services goes beside it: the same
# calls, chosen when the programs are linked (ZELO_PLATFORM_LIBS) or, for the
# programs linked with the host library, by preloading it (README).
if(TARGET zelo_platform_dbus)
  install(TARGETS zelo_platform_dbus LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT daemon
          NAMELINK_SKIP)
endif()
install(TARGETS zelo-daemon zeloctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
install(FILES include/zelo.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(DIRECTORY include/zelo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)
set(ZELO_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING "Where the systemd unit is installed")
install(FILES cmake/zelo.tmpfiles DESTINATION lib/tmpfiles.d RENAME zelo.conf COMPONENT daemon)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelo.service DESTINATION ${ZELO_SYSTEMD_UNIT_DIR}
        COMPONENT daemon)
install(FILES completions/zeloctl completions/zelo
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT daemon)
if(TARGET zelo-dbus)
  install(TARGETS zelo-dbus RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT daemon)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelo-dbus.service DESTINATION ${ZELO_SYSTEMD_UNIT_DIR}
          COMPONENT daemon)
  install(FILES bus/xyz.openbmc_project.Zelo.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d
          COMPONENT daemon)
  install(FILES completions/zelo-dbus DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          COMPONENT daemon)
endif()

# Every package carries its copyright file and changelog.
configure_file(cmake/debian/changelog.in debian/changelog @ONLY)
add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
  COMMAND ${CMAKE_COMMAND} -E copy debian/changelog changelog.Debian
  COMMAND ${ZELO_GZIP} -9nf changelog.Debian
  DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog VERBATIM)
add_custom_target(zelo-changelog ALL DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz)
foreach(pair "lib;libzelo0" "dev;libzelo-dev" "daemon;zelo")
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES cmake/debian/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  # Lintian overrides, each with its reason.
  set(overrides "# Built from the zelo tree, never uploaded to a distribution: no bug\n"
                "# report is closed by it.\n${package}: initial-upload-closes-no-bugs\n")
  if(package STREQUAL "zelo" AND ("zelo_platform" IN_LIST ZELO_PLATFORM_LIBS OR
                                  TARGET zelo_platform_dbus))
    file(READ cmake/debian/zelo-platform.lintian-overrides platform)
    list(APPEND overrides "${platform}")
  endif()
  string(CONCAT overrides ${overrides})
  file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/${package}.lintian-overrides "${overrides}")
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/debian/${package}.lintian-overrides
          DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${package}
          COMPONENT ${component})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zelo)
set(CPACK_PACKAGE_VENDOR "zelo developers")
set(CPACK_PACKAGE_CONTACT "zelo developers <zelo-devel@users.noreply.example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL lib dev daemon)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(ZELO_DEB_VERSION ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(CPACK_STRIP_FILES ON)
# The library's shlibs and symbols files give dependants a proper
# dependency; ldconfig runs from a trigger, not from maintainer scripts.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers
    ${PROJECT_SOURCE_DIR}/cmake/debian/libzelo0/symbols)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/drop-ldconfig-scripts.cmake)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The programs' own libraries are found in the build tree, not on the system.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
set(CPACK_DEBIAN_LIB_PACKAGE_NAME libzelo0)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIB_DESCRIPTION
    "power-management service library of the management controller\n\
The zelo library gives the controller's services typed access to the\n\
host's power-management firmware and to what the zelo daemon records.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzelo-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzelo0 (= ${ZELO_DEB_VERSION})")
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "power-management service library of the management controller - development\n\
Headers, the pkg-config file zelo.pc and the link for building services\n\
against libzelo.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME zelo)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "libzelo0 (= ${ZELO_DEB_VERSION})")
set(CPACK_COMPONENT_DAEMON_DESCRIPTION
    "power-management daemon of the management controller\n\
The zelo daemon turns the host firmware's power snapshots into a metric\n\
log, configuration-store values, software events and 24-hour power and\n\
performance histories; zeloctl asks the firmware and reads what zelo\n\
recorded.")
include(CPack)
