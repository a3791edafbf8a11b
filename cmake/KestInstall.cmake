# The installation beyond the targets: systemd units, PAM service, settings,
# the service user, the package's folders, log rotation; and the Debian
# package built from the same install rules:
#
#   cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DKEST_BUILD_TESTS=OFF \
#         -DCMAKE_INSTALL_PREFIX=/usr
#   cmake --build build-release --target package

# Unit files name their programs where this build installs them.
set(KEST_FULL_SBINDIR "${CMAKE_INSTALL_FULL_SBINDIR}")
set(KEST_SYSTEMD_UNITDIR "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
foreach(unit daemon/dist/kestelasticd indexer/dist/kest-indexer host/dist/kest-webapi-server)
  get_filename_component(name "${unit}" NAME)
  configure_file("${PROJECT_SOURCE_DIR}/${unit}.service.in" "${PROJECT_BINARY_DIR}/dist/${name}.service"
                 @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/dist/${name}.service" DESTINATION "${KEST_SYSTEMD_UNITDIR}")
endforeach()

# The programs read /etc/kest and PAM reads /etc/pam.d whatever the prefix.
install(FILES host/dist/kestondri.pam DESTINATION /etc/pam.d RENAME kestondri)
# The settings name the page where this build installs it.
set(KEST_WWW_DIR "${CMAKE_INSTALL_FULL_DATADIR}/kestondri/www")
configure_file(host/dist/webapi-server.conf "${PROJECT_BINARY_DIR}/dist/webapi-server.conf" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/dist/webapi-server.conf" DESTINATION /etc/kest)
install(FILES dist/kestondri.logrotate DESTINATION /etc/logrotate.d RENAME kestondri)
install(FILES dist/kestondri.sysusers DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/sysusers.d"
        RENAME kestondri.conf)
install(FILES dist/kestondri.tmpfiles DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/tmpfiles.d"
        RENAME kestondri.conf)
install(FILES docs/examples/shares.conf DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/doc/kestondri/examples")

# The Debian package.
set(KEST_VERSION "0.1.0" CACHE STRING "Version of the KestOndri package")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestondri)
set(CPACK_PACKAGE_VERSION "${KEST_VERSION}")
set(CPACK_PACKAGE_CONTACT "KestOndri developers <kestondri@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "file search for a storage server's shared folders")
set(CPACK_PACKAGE_DESCRIPTION "Full-text and metadata search over a server's shared folders \
for the server's own users: a web API server with PAM login, the search daemon kestelasticd \
and the indexer.")
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
# The absolute destinations (/etc) go into the package, not onto this machine.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The project's own libraries, found by dpkg-shlibdeps in the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    "${PROJECT_BINARY_DIR}/platform" "${PROJECT_BINARY_DIR}/src")
# systemd-sysusers and systemd-tmpfiles run in postinst; pam_unix checks
# passwords.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd, init-system-helpers (>= 1.52), libpam-modules")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "logrotate")
# An edited file under /etc survives an upgrade.
file(WRITE "${PROJECT_BINARY_DIR}/debian/conffiles"
     "/etc/kest/webapi-server.conf\n/etc/pam.d/kestondri\n/etc/logrotate.d/kestondri\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    "${PROJECT_BINARY_DIR}/debian/conffiles" "${PROJECT_SOURCE_DIR}/cmake/debian/postinst"
    "${PROJECT_SOURCE_DIR}/cmake/debian/prerm" "${PROJECT_SOURCE_DIR}/cmake/debian/postrm")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
