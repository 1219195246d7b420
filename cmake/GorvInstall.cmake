# SPDX-License-Identifier: BSD-3-Clause
# What `cmake --install` puts where, in the components that become packages: the library, the stand-in for the
# configuration service that it loads, and what a host's author needs besides.
include(CMakePackageConfigHelpers)

set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/gorvUtil")

install(TARGETS gorvUtil
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT libgorvutil1 NAMELINK_COMPONENT libgorvutil-dev)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}"
    COMPONENT libgorvutil-dev)
install(DIRECTORY docs examples DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT libgorvutil-dev
    PATTERN Doxyfile EXCLUDE PATTERN narrow.css EXCLUDE)
install(FILES platform/kep/kep.h DESTINATION "${CMAKE_INSTALL_DOCDIR}/platform/kep" COMPONENT libgorvutil-dev)
install(FILES ${GORV_HEADERS} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/gorvUtil" COMPONENT libgorvutil-dev)
if(GORV_KEP STREQUAL "bundled")
    install(TARGETS kep
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT libkep1-substitute NAMELINK_SKIP)
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr") # where the loader would not look for it
        set_target_properties(gorvUtil PROPERTIES INSTALL_RPATH "$ORIGIN")
    endif()
endif()

configure_package_config_file(cmake/gorvUtilConfig.cmake.in gorvUtilConfig.cmake
    INSTALL_DESTINATION "${package_folder}" PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(gorvUtilConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/gorvUtilConfig.cmake"
    "${CMAKE_CURRENT_BINARY_DIR}/gorvUtilConfigVersion.cmake"
    DESTINATION "${package_folder}" COMPONENT libgorvutil-dev)

file(RELATIVE_PATH prefix "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" prefix_of_pc "\${pcfiledir}/${prefix}")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr") # whose library folder the linker knows: pkg-config then leaves it out
    set(prefix_of_pc /usr)
endif()
configure_file(cmake/gorvUtil.pc.in gorvUtil.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/gorvUtil.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT libgorvutil-dev)
