# Install rules and the Debian package (make install, make deb).
# Manual pages are installed gzip -9n'd (no name or time stamp in the header),
# as Debian ships them; man reads them compressed under any prefix.
include(GNUInstallDirs)

install(TARGETS pelvane pelvane-cc pelvane-channels RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

set(pelvane_man_gz)
foreach(page pelvane.1 pelvane-cc.1 pelvane-channels.1)
  set(gz ${CMAKE_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${gz}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND gzip -9n -c ${CMAKE_SOURCE_DIR}/man/${page} > ${gz}
    DEPENDS ${CMAKE_SOURCE_DIR}/man/${page} VERBATIM)
  list(APPEND pelvane_man_gz ${gz})
endforeach()

# The package's changelog, dated by SOURCE_DATE_EPOCH when that is set.
string(TIMESTAMP pelvane_changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_SOURCE_DIR}/cmake/changelog.Debian.in ${CMAKE_BINARY_DIR}/debian/changelog.Debian @ONLY)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz
  COMMAND gzip -9n -c ${CMAKE_BINARY_DIR}/debian/changelog.Debian > ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz
  DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog.Debian VERBATIM)
add_custom_target(pelvane_docs ALL DEPENDS ${pelvane_man_gz} ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz)

install(FILES ${pelvane_man_gz} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(FILES cmake/copyright ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME pelvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "pelvane maintainers <maintainers@pelvane.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "live media relay to MPEG-TS on standard output")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "pelvane reads one live source (RTSP, RTMP, RTMPS, HTTP, HTTPS or TCP) and
writes it to standard output as an MPEG transport stream or fragmented MP4,
copying packets and repairing their time stamps. WebVTT cues travel along as
caption events, which pelvane-cc reads back. It is started once per client,
for example by systemd socket activation. pelvane-channels serves a whole
M3U channel list on one port, as a playlist and as a network tuner that
media servers add by address, and starts pelvane for the channel asked for.")
include(CPack)
