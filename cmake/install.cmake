# What `cmake --install` puts where (GNUInstallDirs), and the Debian packages that
# `cpack -G DEB` makes of it: one component per package.
#   library      lib${RTUPLC_NAME}.so.2 and its versioned file         -> lib<name>2
#   development  headers, .so link, CMake package, pkg-config, page (3) -> lib<name>-dev
#   tools        rtuplc-poll, rtuplc-sim and their pages (1)           -> rtuplc-tools
#   gateway      rtuplc-gateway, its service unit, page (1), an example -> rtuplc-gateway
# Tests, benchmarks and fuzz targets are not installed.
include(CMakePackageConfigHelpers)

set(RTUPLC_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/${RTUPLC_NAME})
set(RTUPLC_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/${RTUPLC_NAME})
set(RTUPLC_LIBRARY_PACKAGE lib${RTUPLC_NAME}${PROJECT_VERSION_MAJOR})
if(RTUPLC_NAME MATCHES "[0-9]$")
  set(RTUPLC_LIBRARY_PACKAGE lib${RTUPLC_NAME}-${PROJECT_VERSION_MAJOR})
endif()
set(RTUPLC_DEV_PACKAGE lib${RTUPLC_NAME}-dev)
set(RTUPLC_TOOLS_PACKAGE rtuplc-tools)
set(RTUPLC_GATEWAY_PACKAGE rtuplc-gateway)

install(TARGETS rtuplc EXPORT rtuplcTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
# Every public header: hosts write #include <rtuplc.h> with the package's include directory.
file(GLOB RTUPLC_PUBLIC_HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/*.h)
install(FILES ${RTUPLC_PUBLIC_HEADERS} DESTINATION ${RTUPLC_INSTALL_INCLUDEDIR} COMPONENT development)
install(TARGETS rtuplc-poll rtuplc-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
if(TARGET rtuplc-gateway)
  install(TARGETS rtuplc-gateway RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT gateway)
  install(FILES ${PROJECT_SOURCE_DIR}/gateway/example.yaml RENAME line1.yaml
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${RTUPLC_GATEWAY_PACKAGE}/examples COMPONENT gateway)
  # The unit goes where systemd looks under the prefix (/usr/lib/systemd/system for the
  # package, /usr/local/lib/systemd/system for a local install), and starts the program
  # installed beside it: the path is written when installing, since a package is staged
  # under another prefix than the one the build was configured with.
  set(RTUPLC_UNIT rtuplc-gateway@.service)
  install(CODE "
    set(unit_dir \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\")
    file(READ \"${PROJECT_SOURCE_DIR}/gateway/${RTUPLC_UNIT}\" unit)
    string(REPLACE \"/usr/bin/rtuplc-gateway\" \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/rtuplc-gateway\" unit \"\${unit}\")
    message(STATUS \"Installing: \${unit_dir}/${RTUPLC_UNIT}\")
    file(MAKE_DIRECTORY \"\${unit_dir}\")
    file(WRITE \"\${unit_dir}/${RTUPLC_UNIT}\" \"\${unit}\")
    " COMPONENT gateway)
  if(BUILD_TESTING)
    # systemd-analyze verify: the unit as an instance, starting the program just built,
    # its manual page found through Documentation=; and the sandbox kept as tight.
    add_test(NAME Gateway.ServiceUnitVerifies
      COMMAND sh ${PROJECT_SOURCE_DIR}/packaging/gateway/check-unit.sh
              ${PROJECT_SOURCE_DIR}/gateway/${RTUPLC_UNIT} $<TARGET_FILE:rtuplc-gateway>
              ${PROJECT_SOURCE_DIR}/man/rtuplc-gateway.1)
    set_tests_properties(Gateway.ServiceUnitVerifies PROPERTIES SKIP_RETURN_CODE 77)
  endif()
endif()

# CMake package: find_package(rtuplc) gives rtuplc::rtuplc (rtuplc-qt6: rtuplc::rtuplc-qt6).
install(EXPORT rtuplcTargets NAMESPACE rtuplc:: FILE ${RTUPLC_NAME}Targets.cmake
  DESTINATION ${RTUPLC_INSTALL_CMAKEDIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/rtuplcConfig.cmake.in
  ${PROJECT_BINARY_DIR}/${RTUPLC_NAME}Config.cmake INSTALL_DESTINATION ${RTUPLC_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/${RTUPLC_NAME}ConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/${RTUPLC_NAME}Config.cmake ${PROJECT_BINARY_DIR}/${RTUPLC_NAME}ConfigVersion.cmake
  DESTINATION ${RTUPLC_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config: paths relative to the file itself, so a tree installed under any prefix
# (a staging directory too) describes itself.
file(RELATIVE_PATH RTUPLC_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" RTUPLC_PC_TO_PREFIX "${RTUPLC_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/rtuplc.pc.in ${PROJECT_BINARY_DIR}/${RTUPLC_NAME}.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/${RTUPLC_NAME}.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

add_subdirectory(man)

# Debian packages.
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${RTUPLC_LIBRARY_PACKAGE} COMPONENT library EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${RTUPLC_DEV_PACKAGE} COMPONENT development EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${RTUPLC_TOOLS_PACKAGE} COMPONENT tools EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${RTUPLC_GATEWAY_PACKAGE} COMPONENT gateway EXCLUDE_FROM_ALL)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/changelog.gz
  COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/changelog > ${PROJECT_BINARY_DIR}/changelog.gz
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/changelog VERBATIM)
add_custom_target(rtuplc_changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/changelog.gz)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME rtuplc)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "rtuplc developers <rtuplc@example.com>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "")
# The tools are packaged from the Qt 5 build; a Qt 6 build adds its library packages.
if(RTUPLC_QT_MAJOR STREQUAL "5")
  set(CPACK_COMPONENTS_ALL library development tools)
  if(TARGET rtuplc-gateway)
    list(APPEND CPACK_COMPONENTS_ALL gateway)
  endif()
  set(RTUPLC_QT_DEV_PACKAGE qtbase5-dev)
else()
  set(CPACK_COMPONENTS_ALL library development)
  set(RTUPLC_QT_DEV_PACKAGE qt6-base-dev)
endif()

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${RTUPLC_LIBRARY_PACKAGE})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# The shlibs file and an ldconfig trigger, as Debian's library packages have.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "Modbus RTU driver for operator panels (Qt ${RTUPLC_QT_MAJOR})
rtuplc is the communication driver that lets an operator-panel runtime read
and write a compact programmable controller over Modbus RTU. The host loads
the library, asks it for request frames, transmits them and hands the replies
back. This package holds the shared library, built for Qt ${RTUPLC_QT_MAJOR}.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${RTUPLC_DEV_PACKAGE})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${RTUPLC_LIBRARY_PACKAGE} (= ${PROJECT_VERSION}), ${RTUPLC_QT_DEV_PACKAGE}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "Modbus RTU driver for operator panels (development files, Qt ${RTUPLC_QT_MAJOR})
rtuplc is the communication driver that lets an operator-panel runtime read
and write a compact programmable controller over Modbus RTU. This package
holds the public headers, the CMake package, the pkg-config file and the
manual page for host developers.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${RTUPLC_TOOLS_PACKAGE})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# rtuplc-poll loads the driver with dlopen, so dpkg-shlibdeps cannot see it.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${RTUPLC_LIBRARY_PACKAGE} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Modbus RTU driver for operator panels (poll tool and simulator)
rtuplc-poll runs an operator panel's communication loop on the command line
through the rtuplc driver: it polls, writes and transfers recipes, over a
serial line or TCP. rtuplc-sim simulates the controller as a Modbus RTU slave
over TCP, a pseudo-terminal or a serial device.")

set(CPACK_DEBIAN_GATEWAY_PACKAGE_NAME ${RTUPLC_GATEWAY_PACKAGE})
set(CPACK_DEBIAN_GATEWAY_PACKAGE_SECTION net)
# The driver is loaded with dlopen, as by rtuplc-poll; adduser makes the service's user.
set(CPACK_DEBIAN_GATEWAY_PACKAGE_DEPENDS "${RTUPLC_LIBRARY_PACKAGE} (= ${PROJECT_VERSION}), adduser")
set(CPACK_DEBIAN_GATEWAY_PACKAGE_SUGGESTS "mosquitto, mosquitto-clients")
set(CPACK_DEBIAN_GATEWAY_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/gateway/postinst
  ${PROJECT_SOURCE_DIR}/packaging/gateway/prerm
  ${PROJECT_SOURCE_DIR}/packaging/gateway/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_GATEWAY_DESCRIPTION "Modbus RTU driver for operator panels (MQTT gateway service)
rtuplc-gateway polls one Modbus RTU line through the rtuplc driver and
publishes every value on an MQTT broker, retained, with its quality and the
time it was read; it takes writes from the broker and answers each. It runs
as a systemd service, one instance per line, configured in YAML.")
include(CPack)
