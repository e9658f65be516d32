# Installation and the Debian package: the daemon, the installed tools, the systemd units, the
# manual page and the documentation. Included by the top-level CMakeLists.txt after the targets
# exist.
#
#   cmake --build --preset default --target installed-programs
#   cmake --install build/default                  # under /usr/local
#   cpack --config build/default/CPackConfig.cmake -B build/default/package   # a .deb for /usr

include(GNUInstallDirs)

set(QB_PACKAGE_NAME vorbel-vpn-service)
set(QB_PACKAGE_MAINTAINER "Vorbel VPN Service maintainers <maintainers@vorbel.example>"
    CACHE STRING "Maintainer field of the Debian package")
# Relative to the prefix: systemd reads units from /usr/lib/systemd/system and, for a local
# install, /usr/local/lib/systemd/system.
set(QB_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING "Where the systemd units are installed")
set(QB_DOC_DIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/${QB_PACKAGE_NAME})
set(QB_TOOL_DIR ${CMAKE_INSTALL_LIBEXECDIR}/${QB_PACKAGE_NAME})

# What `cmake --install` and cpack copy; neither builds anything themselves.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)
add_custom_target(installed-programs DEPENDS vorbel-vpn-service ${QB_INSTALLED_TOOLS})

# The shipped programs get the distribution's hardening (sanitizer builds are never installed).
if(QB_SANITIZE STREQUAL "" AND CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo)$")
    foreach(target vorbel-vpn-service ${QB_INSTALLED_TOOLS})
        target_compile_definitions(${target} PRIVATE _FORTIFY_SOURCE=2)
        target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now)
    endforeach()
endif()

install(TARGETS vorbel-vpn-service RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(QB_INSTALLED_TOOLS)
    install(TARGETS ${QB_INSTALLED_TOOLS} RUNTIME DESTINATION ${QB_TOOL_DIR})
endif()

# The service unit names the daemon by its installed path, which is known only when installing
# (cpack installs under /usr, `cmake --install` under the configured prefix), and the manual page
# and changelog are compressed the Debian way (gzip -9n: no name, no time stamp).
set(QB_STAGING ${CMAKE_BINARY_DIR}/packaging)
install(CODE "
    set(QB_DAEMON_PATH \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}/${QB_PACKAGE_NAME}\")
    configure_file(\"${CMAKE_SOURCE_DIR}/packaging/${QB_PACKAGE_NAME}.service.in\"
                   \"${QB_STAGING}/${QB_PACKAGE_NAME}.service\" @ONLY)
    foreach(file ${QB_PACKAGE_NAME}.8 changelog)
        execute_process(COMMAND gzip -9nc \"${CMAKE_SOURCE_DIR}/packaging/\${file}\"
                        OUTPUT_FILE \"${QB_STAGING}/\${file}.gz\" COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
")
install(FILES ${QB_STAGING}/${QB_PACKAGE_NAME}.service
              ${CMAKE_SOURCE_DIR}/packaging/${QB_PACKAGE_NAME}.socket
        DESTINATION ${QB_SYSTEMD_UNIT_DIR})
install(FILES ${QB_STAGING}/${QB_PACKAGE_NAME}.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/packaging/copyright
              ${QB_STAGING}/changelog.gz
        DESTINATION ${QB_DOC_DIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${QB_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${QB_PACKAGE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "web bridge between the VPN client's web page and its GUI")
set(CPACK_PACKAGE_DESCRIPTION "\
The root service of the Vorbel VPN client. It answers the client's web page
with XML-RPC over HTTP on 127.94.0.1:986 and 127.0.0.1:986, adding 127.94.0.1
to the loopback interface, and relays each call to the client's GUI
application over a Unix socket, starting the application for the user at the
console when it is not running.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library dependencies (libicu72, libplist3, libsystemd0, libstdc++6, libc6) come from
# dpkg-shlibdeps; these are the programs the service and the maintainer scripts run.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "iproute2, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libglib2.0-bin")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/debian/postinst
    ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)
