# What a Linux user gets: the Debian package zor_<version>_amd64.deb, made by
# `cpack -G DEB` in the build folder of the linux preset:
#   /usr/bin/                 zor, zorctl
#   /usr/lib/zor/             the IRQ drivers: the module directory (DLLDIR)
#   /etc/zor/ZOR.INI          the configuration (a conffile), read by /usr/bin/zor
#   /usr/lib/<multiarch>/     libzorclient.so.<major> (SONAME) and its links,
#                             libzorclient.a, pkgconfig/zor.pc, cmake/zor/
#   /usr/include/zor/         the C headers
#   /usr/share/doc/zor/       the guides, samples/, changelog, copyright
#   /usr/share/man/           zor(8), zorctl(1)
#   /usr/lib/systemd/system/  zor.service; /lib/udev/rules.d/ the UIO rule
# The install rules here describe that package; they are not meant for a
# plain `cmake --install` into another prefix.
if(WIN32)
  return()
endif()
set(ZOR_DEB_DIR ${CMAKE_BINARY_DIR}/debian)
set(ZOR_DEB_SRC ${CMAKE_SOURCE_DIR}/cmake/debian)
if(NOT CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_LIBRARY_ARCHITECTURE x86_64-linux-gnu)
endif()
# Paths below /usr are relative: CPack puts them under its prefix, /usr.
set(ZOR_DEB_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(ZOR_DEB_CMAKEDIR ${ZOR_DEB_LIBDIR}/cmake/zor)
file(RELATIVE_PATH ZOR_DEB_UP /usr/${ZOR_DEB_CMAKEDIR} /usr)

# The shared client library carries its major version in its name.
set_target_properties(zorclient_shared PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})

install(TARGETS zor zorctl RUNTIME DESTINATION bin)
install(TARGETS timer trigger event LIBRARY DESTINATION lib/zor)
install(TARGETS zorclient_shared LIBRARY DESTINATION ${ZOR_DEB_LIBDIR} NAMELINK_COMPONENT Unspecified)
install(FILES ${ZOR_BIN_DIR}/libzorclient.a DESTINATION ${ZOR_DEB_LIBDIR})
install(FILES ${ZOR_DEB_SRC}/ZOR.INI DESTINATION /etc/zor)
# Every public header: the client header includes the others.
file(GLOB ZOR_PUBLIC_HEADERS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/include/zor/*.h)
install(FILES ${ZOR_PUBLIC_HEADERS} ${ZOR_GENERATED_INCLUDE}/zor/zor_version.h DESTINATION include/zor)

configure_file(${ZOR_DEB_SRC}/zor.pc.in ${ZOR_DEB_DIR}/zor.pc @ONLY)
install(FILES ${ZOR_DEB_DIR}/zor.pc DESTINATION ${ZOR_DEB_LIBDIR}/pkgconfig)
configure_file(${ZOR_DEB_SRC}/zorConfig.cmake.in ${ZOR_DEB_DIR}/zorConfig.cmake @ONLY)
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${ZOR_DEB_DIR}/zorConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${ZOR_DEB_DIR}/zorConfig.cmake ${ZOR_DEB_DIR}/zorConfigVersion.cmake DESTINATION ${ZOR_DEB_CMAKEDIR})

install(FILES ${ZOR_DEB_SRC}/zor.service DESTINATION lib/systemd/system)
install(FILES ${ZOR_DEB_SRC}/60-zor-uio.rules DESTINATION /lib/udev/rules.d)

# Documentation: man pages and the changelog compressed as Debian wants them
# (gzip -9n: no name, no time stamp, so that rebuilds are identical).
configure_file(${ZOR_DEB_SRC}/changelog.in ${ZOR_DEB_DIR}/changelog @ONLY)
set(zor_deb_gz)
foreach(src docs/man/zor.8 docs/man/zorctl.1 ${ZOR_DEB_DIR}/changelog)
  get_filename_component(name ${src} NAME)
  get_filename_component(src ${src} ABSOLUTE BASE_DIR ${CMAKE_SOURCE_DIR})
  add_custom_command(OUTPUT ${ZOR_DEB_DIR}/${name}.gz
    COMMAND gzip -9n -c ${src} > ${ZOR_DEB_DIR}/${name}.gz
    DEPENDS ${src} VERBATIM)
  list(APPEND zor_deb_gz ${ZOR_DEB_DIR}/${name}.gz)
endforeach()
add_custom_target(zor_deb_docs ALL DEPENDS ${zor_deb_gz})
install(FILES ${ZOR_DEB_DIR}/zor.8.gz DESTINATION share/man/man8)
install(FILES ${ZOR_DEB_DIR}/zorctl.1.gz DESTINATION share/man/man1)
install(FILES ${ZOR_DEB_DIR}/changelog.gz ${ZOR_DEB_SRC}/copyright README.md DESTINATION share/doc/zor)
install(DIRECTORY docs/ DESTINATION share/doc/zor PATTERN man EXCLUDE)
install(DIRECTORY samples/ DESTINATION share/doc/zor/samples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zor)
set(CPACK_PACKAGE_VENDOR ZOR)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "ZOR developers <zor@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "user-mode interrupt service host
ZOR runs interrupt service routines in user space: an IRQ driver (a timer,
a UIO device, events on demand) wakes a real-time thread, which calls the
registered ISR modules in priority order. Clients load modules, share
memory with them and call them through a Unix socket.
.
This package holds the host and its systemd service, the bundled drivers,
zorctl, the client library, the headers with pkg-config and CMake files,
and the samples.")
# Library dependencies from the binaries themselves; adduser for the
# service's user.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_DEPENDS adduser)
# The library in the loader's path needs its cache updated.
file(WRITE ${ZOR_DEB_DIR}/conffiles "/etc/zor/ZOR.INI\n")
file(WRITE ${ZOR_DEB_DIR}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${ZOR_DEB_DIR}/conffiles ${ZOR_DEB_DIR}/triggers ${ZOR_DEB_SRC}/postinst ${ZOR_DEB_SRC}/prerm ${ZOR_DEB_SRC}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
