# Installation layout and the Debian packages (CPack).
#
#   PREFIX/bin                        pathweave-host, cefdump
#   PREFIX/LIBDIR                     libpwhost.so.1 (multiarch LIBDIR with the prefix /usr)
#   PREFIX/include/pathweave          the platform interface and the host/plug-in contract
#   PREFIX/LIBDIR/cmake/PathweaveHost find_package(PathweaveHost): Pathweave::pwhost
#   PREFIX/LIBDIR/pkgconfig           pathweave-host.pc
#   PW_INSTALL_DIR/lib                libPhoneHome.so, the plug-in
#   /etc/pathweave/host.conf, the systemd unit, logrotate, man pages, package documents
# GNUInstallDirs picks the multiarch directory only for native builds; the i386 build is a
# cross build to CMake, so it is named here.
if(CMAKE_LIBRARY_ARCHITECTURE AND CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(PW_HOST_SOVERSION 1)
set_target_properties(pwhost PROPERTIES VERSION ${PW_HOST_SOVERSION}.0.0
                                        SOVERSION ${PW_HOST_SOVERSION})

# Programs and the plug-in find libpwhost in the system's library directories when the
# prefix is /usr; installed elsewhere (a scratch prefix, /usr/local) they carry a runpath.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set_target_properties(pathweave-host cefdump PROPERTIES
                        INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(PhoneHome PROPERTIES INSTALL_RPATH "${CMAKE_INSTALL_FULL_LIBDIR}")
endif()

install(TARGETS pathweave-host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT feedback)
install(TARGETS PhoneHome LIBRARY DESTINATION ${PW_INSTALL_DIR}/lib COMPONENT feedback)
install(TARGETS cefdump RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
install(TARGETS pwhost EXPORT PathweaveHostTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pathweave)

# Headers: the platform interface (not the test controls) and the host/plug-in contract.
file(GLOB PW_PUBLIC_HEADERS ${PROJECT_SOURCE_DIR}/host/include/*.h
                            ${PROJECT_SOURCE_DIR}/vpn/include/*.h)
list(FILTER PW_PUBLIC_HEADERS EXCLUDE REGEX "HostTestControl\\.h$")
install(FILES ${PW_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pathweave
        COMPONENT dev)

set(PW_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/PathweaveHost)
install(EXPORT PathweaveHostTargets NAMESPACE Pathweave:: DESTINATION ${PW_CMAKE_DIR}
        COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/PathweaveHostConfig.cmake.in
  ${PROJECT_BINARY_DIR}/PathweaveHostConfig.cmake INSTALL_DESTINATION ${PW_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/PathweaveHostConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/PathweaveHostConfig.cmake
              ${PROJECT_BINARY_DIR}/PathweaveHostConfigVersion.cmake
        DESTINATION ${PW_CMAKE_DIR} COMPONENT dev)
# The prefix is found relative to the .pc file, so the file is right wherever it lands.
file(RELATIVE_PATH PW_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/packaging/pathweave-host.pc.in
               ${PROJECT_BINARY_DIR}/pathweave-host.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pathweave-host.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# The service. With the prefix /usr the settings go to /etc (GNUInstallDirs), with any
# other prefix under it.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/host.conf
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/pathweave COMPONENT feedback)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/pathweave-host.logrotate
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/logrotate.d RENAME pathweave-host
        COMPONENT feedback)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/pathweave-host.service
        DESTINATION lib/systemd/system COMPONENT feedback)

# The collector (amd64 only): the program, its pages, settings, unit and system user.
if(TARGET pathweave-collector)
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set_target_properties(pathweave-collector PROPERTIES
                          INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  endif()
  install(TARGETS pathweave-collector RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
          COMPONENT collector)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/collector/web/
          DESTINATION ${CMAKE_INSTALL_DATADIR}/pathweave-collector/web COMPONENT collector)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/collector/collector.conf
          DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/pathweave COMPONENT collector)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/collector/pathweave-collector.service
          DESTINATION lib/systemd/system COMPONENT collector)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/collector/pathweave-collector.sysusers
          DESTINATION lib/sysusers.d RENAME pathweave-collector.conf COMPONENT collector)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/collector.md ${PROJECT_SOURCE_DIR}/docs/dashboard.md
          DESTINATION ${CMAKE_INSTALL_DOCDIR}/../pathweave-collector COMPONENT collector)
  list(APPEND PW_MAN_PAGES_EXTRA pathweave-collector.8:collector)
endif()

# Man pages (compressed, as Debian installs them) and each package's documents.
find_program(GZIP_PROGRAM gzip REQUIRED)
foreach(page pathweave-host.8:feedback pathweave-host.conf.5:feedback cefdump.1:tools
             ${PW_MAN_PAGES_EXTRA})
  string(REPLACE ":" ";" parts ${page})
  list(GET parts 0 name)
  list(GET parts 1 component)
  string(REGEX MATCH "[0-9]$" section ${name})
  set(out ${PROJECT_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${GZIP_PROGRAM} -9nc ${PROJECT_SOURCE_DIR}/docs/man/${name} > ${out}
    DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/${name} VERBATIM)
  list(APPEND PW_MAN_PAGES ${out})
  install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endforeach()
add_custom_target(pw_man_pages ALL DEPENDS ${PW_MAN_PAGES})

set(PW_PACKAGES feedback:pathweave-feedback runtime:libpwhost${PW_HOST_SOVERSION}
                dev:libpwhost-dev tools:pathweave-tools)
if(TARGET pathweave-collector)
  list(APPEND PW_PACKAGES collector:pathweave-collector)
endif()
foreach(entry ${PW_PACKAGES})
  string(REPLACE ":" ";" parts ${entry})
  list(GET parts 0 component)
  list(GET parts 1 package)
  set(PKG ${package})
  set(VERSION ${PW_PRODUCT_VERSION})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in
                 ${PROJECT_BINARY_DIR}/pkgdoc/${package}/changelog @ONLY)
  add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/pkgdoc/${package}/changelog.gz
    COMMAND ${GZIP_PROGRAM} -9nf ${PROJECT_BINARY_DIR}/pkgdoc/${package}/changelog
    DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog.in VERBATIM)
  list(APPEND PW_CHANGELOGS ${PROJECT_BINARY_DIR}/pkgdoc/${package}/changelog.gz)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright
                ${PROJECT_BINARY_DIR}/pkgdoc/${package}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DOCDIR}/../${package} COMPONENT ${component})
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${package})
endforeach()
add_custom_target(pw_changelogs ALL DEPENDS ${PW_CHANGELOGS})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/lintian-overrides
        DESTINATION share/lintian/overrides RENAME pathweave-feedback COMPONENT feedback)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pathweave)
set(CPACK_PACKAGE_VENDOR "Norvek")
set(CPACK_PACKAGE_CONTACT "Pathweave packaging <packaging@pathweave.example>")
set(CPACK_PACKAGE_VERSION ${PW_PRODUCT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL feedback runtime dev tools)
if(TARGET pathweave-collector)
  list(APPEND CPACK_COMPONENTS_ALL collector)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/host)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_FEEDBACK_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_FEEDBACK_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
else()
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
set(CPACK_DEBIAN_FEEDBACK_DESCRIPTION "Pathweave customer-experience feedback service
The feedback plug-in of the Pathweave VPN client, the pathweave-host program
that runs it as a system service, its systemd unit and default host settings.")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Pathweave host framework (runtime library)
Logging, timers, events, directory watching, HTTPS sessions and certificate
checks on which the Pathweave feedback plug-in runs.")
set(CPACK_DEBIAN_DEV_DESCRIPTION "Pathweave host framework (development files)
Headers of the platform interface and the host/plug-in contract, a CMake
package and a pkg-config file for hosts of the Pathweave feedback plug-in.")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Pathweave feedback tools
cefdump prints the feedback service's report files and module data files
as JSON.")
set(CPACK_COMPONENT_FEEDBACK_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_COLLECTOR_DEPENDS runtime)
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_DEPENDS "libjs-chart.js, adduser")
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/collector/conffiles
    ${PROJECT_SOURCE_DIR}/packaging/collector/postinst)
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COLLECTOR_DESCRIPTION "Pathweave feedback collector
pathweave-collector receives the reports that Pathweave clients post over
HTTPS, validates and keeps them (SQLite, or PostgreSQL for several nodes),
and serves a JSON API and a dashboard over them.")
include(CPack)
