# What a Windows user gets: version resources in the shipped files, the
# install layout, and the ZIP archive made by `cpack -G ZIP` in the build
# folder (zor-<version>-win64.zip):
#   bin/            zor.exe, the IRQ drivers, zorctl.exe, zorclient.dll, ZOR.INI
#   include/zor/    the C headers, zor_version.h included
#   lib/            libzorclient.a (static, self-contained), libzorclient.dll.a
#   lib/cmake/zor/  the CMake package: zor::module, zor::client, zor::client_static,
#                   and a toolchain file for cross-compiling from Linux
#   docs/, samples/ the guides and the sample sources (buildable on their own)
if(NOT WIN32)
  return()
endif()
set(ZOR_RELEASE_DIR ${CMAKE_BINARY_DIR}/release)

# One VERSIONINFO per shipped binary, all from project(VERSION).
function(zor_version_resource target description)
  if(NOT TARGET ${target})
    return()
  endif()
  get_target_property(type ${target} TYPE)
  get_target_property(suffix ${target} SUFFIX)
  get_target_property(name ${target} OUTPUT_NAME)
  if(NOT name)
    set(name ${target})
  endif()
  if(type STREQUAL "EXECUTABLE")
    set(ZOR_RC_TYPE VFT_APP)
    set(suffix .exe)
  else()
    set(ZOR_RC_TYPE VFT_DLL)
    if(NOT suffix)
      set(suffix .dll)
    endif()
  endif()
  set(ZOR_RC_TARGET ${target})
  set(ZOR_RC_FILE ${name}${suffix})
  set(ZOR_RC_DESCRIPTION "${description}")
  configure_file(${CMAKE_SOURCE_DIR}/cmake/release/version.rc.in ${ZOR_RELEASE_DIR}/rc/${target}.rc @ONLY)
  target_sources(${target} PRIVATE ${ZOR_RELEASE_DIR}/rc/${target}.rc)
endfunction()
zor_version_resource(zor "ZOR user-mode interrupt service host")
zor_version_resource(timer "ZOR IRQ driver: periodic timer")
zor_version_resource(trigger "ZOR IRQ driver: events on demand")
zor_version_resource(event "ZOR IRQ driver: kernel driver events and reads")
zor_version_resource(zorclient_shared "ZOR client library")
zor_version_resource(zorctl "ZOR command-line client")

# The static client library with what it needs of ours, in one archive.
set(zor_client_archive ${ZOR_RELEASE_DIR}/libzorclient.a)
add_custom_command(OUTPUT ${zor_client_archive}
  COMMAND ${CMAKE_COMMAND} -DAR=${CMAKE_AR} -DOUT=${zor_client_archive}
          "-DLIBS=$<TARGET_FILE:zorclient>|$<TARGET_FILE:zorclient_core>|$<TARGET_FILE:zor_os>"
          -P ${CMAKE_SOURCE_DIR}/cmake/release/merge_archives.cmake
  DEPENDS zorclient zorclient_core zor_os ${CMAKE_SOURCE_DIR}/cmake/release/merge_archives.cmake
  COMMENT "Joining the static client library" VERBATIM)
add_custom_target(zorclient_archive ALL DEPENDS ${zor_client_archive})

install(TARGETS zor zorctl RUNTIME DESTINATION bin)
install(TARGETS timer trigger event LIBRARY DESTINATION bin)
install(TARGETS zorclient_shared RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
install(FILES config/ZOR.INI DESTINATION bin)
# Every public header: the client header includes the others.
file(GLOB ZOR_PUBLIC_HEADERS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/include/zor/*.h)
install(FILES ${ZOR_PUBLIC_HEADERS} ${ZOR_GENERATED_INCLUDE}/zor/zor_version.h DESTINATION include/zor)
install(FILES ${zor_client_archive} DESTINATION lib)
configure_file(cmake/release/zorConfig.cmake.in ${ZOR_RELEASE_DIR}/zorConfig.cmake @ONLY)
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${ZOR_RELEASE_DIR}/zorConfigVersion.cmake
  COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
install(FILES ${ZOR_RELEASE_DIR}/zorConfig.cmake ${ZOR_RELEASE_DIR}/zorConfigVersion.cmake
              cmake/release/mingw-w64-x86_64.cmake DESTINATION lib/cmake/zor)
install(DIRECTORY docs/ DESTINATION docs)
install(FILES README.md DESTINATION docs)
install(DIRECTORY samples/ DESTINATION samples)

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME zor)
set(CPACK_PACKAGE_VENDOR ZOR)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_FILE_NAME zor-${PROJECT_VERSION}-win64)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
include(CPack)

# The end-to-end tests read the shipped files' version resources.
if(TARGET e2e_tests)
  target_link_libraries(e2e_tests PRIVATE version)
  add_dependencies(e2e_tests zorclient_shared zorctl)
endif()
