# Installation and packaging: "cmake --install build --prefix P" lays out
#   P/bin/zeltrim                          the command-line host
#   P/lib/zeltrim/_binlinux/*.so           the module and the peer modules it loads
#   P/include/zeltrim/{frame,host/client}  the interfaces and the host library's headers
#   P/lib/libzeltrim_client.a              the host library (Zeltrim::host)
#   P/lib/cmake/Zeltrim/                   find_package(Zeltrim)
#   P/lib/pkgconfig/zeltrim.pc             pkg-config
#   P/share/zeltrim/data/                  the sample that "zeltrim calibrate" runs on
# Every path a file of the installation names is relative to where that file lies, so the
# tree works wherever it ends up (a package unpacked under another root included).
include(CMakePackageConfigHelpers)

if(TARGET zeltrim)
  install(TARGETS zeltrim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# The module and its peers together: peers are found as ./_binlinux/<name>.so from the
# folder a host works from.
get_property(ZELTRIM_PEERS GLOBAL PROPERTY ZELTRIM_PEER_MODULES)
install(TARGETS Zeltrim ${ZELTRIM_PEERS} LIBRARY DESTINATION ${ZELTRIM_INSTALL_HOMEDIR}/_binlinux)

install(DIRECTORY ${CMAKE_SOURCE_DIR}/frame/ DESTINATION ${ZELTRIM_INSTALL_INCLUDEDIR}/frame
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${CMAKE_SOURCE_DIR}/host/client/ DESTINATION ${ZELTRIM_INSTALL_INCLUDEDIR}/host/client
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${CMAKE_SOURCE_DIR}/data/ DESTINATION ${ZELTRIM_INSTALL_DATADIR})

install(TARGETS zeltrim_frame_base zeltrim_client EXPORT ZeltrimTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
set(ZELTRIM_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Zeltrim)
install(EXPORT ZeltrimTargets NAMESPACE Zeltrim:: DESTINATION ${ZELTRIM_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/ZeltrimConfig.cmake.in
  ${CMAKE_BINARY_DIR}/ZeltrimConfig.cmake INSTALL_DESTINATION ${ZELTRIM_INSTALL_CMAKEDIR}
  PATH_VARS ZELTRIM_INSTALL_HOMEDIR ZELTRIM_INSTALL_INCLUDEDIR ZELTRIM_INSTALL_DATADIR)
# 0.x: a new minor version may change the interfaces.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ZeltrimConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ZeltrimConfig.cmake ${CMAKE_BINARY_DIR}/ZeltrimConfigVersion.cmake
        DESTINATION ${ZELTRIM_INSTALL_CMAKEDIR})

# pkg-config: the prefix is found from the .pc file's own folder.
file(RELATIVE_PATH ZELTRIM_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" ZELTRIM_PC_TO_PREFIX "${ZELTRIM_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zeltrim.pc.in ${CMAKE_BINARY_DIR}/zeltrim.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zeltrim.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# cpack -G DEB (from the build folder): one package, zeltrim, installed under /usr.
set(CPACK_PACKAGE_NAME zeltrim)
set(CPACK_PACKAGE_VENDOR "Zeltrim developers")
set(CPACK_PACKAGE_CONTACT "Zeltrim developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Zeltrim calibration module, its reference host, the zeltrim command and the host headers")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Zeltrim developers")
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Installed binaries without their debugging sections.
set(CPACK_STRIP_FILES ON)
# The binaries need only the C and C++ runtimes (the module and the peers are loaded with
# dlopen, not linked). dpkg-shlibdeps (dpkg-dev), with file(1) to pick the binaries out,
# works the versions out; without them, the versions a GCC 12 build on Debian 12 asks for
# (hypot@GLIBC_2.35, GLIBCXX_3.4.29).
find_program(ZELTRIM_DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(ZELTRIM_FILE_COMMAND file)
mark_as_advanced(ZELTRIM_DPKG_SHLIBDEPS ZELTRIM_FILE_COMMAND)
if(ZELTRIM_DPKG_SHLIBDEPS AND ZELTRIM_FILE_COMMAND)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.35), libgcc-s1 (>= 3.0), libstdc++6 (>= 11)")
endif()
include(CPack)
