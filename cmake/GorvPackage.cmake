# SPDX-License-Identifier: BSD-3-Clause
# Debian packages of the installed components; script/package builds and proves them.

# The first line of Debian's changelog says which version is packaged, or which candidate for it: 1.2.3~rc1.
file(STRINGS cmake/debian/changelog first_line LIMIT_COUNT 1)
string(REGEX MATCH "\\(([^~-]*)(~rc[0-9]+)?-(.*)\\)" debian_version "${first_line}")
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "cmake/debian/changelog is at ${CMAKE_MATCH_1}, the project at ${PROJECT_VERSION}")
endif()
set(CPACK_PACKAGE_VERSION ${CMAKE_MATCH_1}${CMAKE_MATCH_2})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_3})
set(debian_version ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libgorvutil1 libgorvutil-dev libkep1-substitute gorvutil-consoled)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_SET_DESTDIR ON) # one component installs below /etc
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_NAME libgorvutil)
set(CPACK_PACKAGE_CONTACT "The libgorvUtil authors <authors@gorvutil.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package's own stands in the first line of its description
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE libgorvutil)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}" "${PROJECT_BINARY_DIR}/platform/kep")
if(CMAKE_CROSSCOMPILING)
    # Whose libraries lie below the sysroot, as does what dpkg knows of them.
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_SYSROOT}/usr/lib/${CMAKE_CXX_LIBRARY_ARCHITECTURE}")
endif()

# gorv_debian_package(NAME SECTION DESCRIPTION): a component with the files that Debian's policy asks for.
function(gorv_debian_package name section description)
    string(TOUPPER ${name} upper)
    set(prefix CPACK_DEBIAN_${upper})
    set(${prefix}_PACKAGE_NAME ${name} PARENT_SCOPE)
    set(${prefix}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(${prefix}_DESCRIPTION "${description}" PARENT_SCOPE)
    set(folder "${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian")
    set(documents "${CMAKE_CURRENT_BINARY_DIR}/debian/${name}")
    file(MAKE_DIRECTORY "${documents}")
    execute_process(COMMAND gzip -9nc "${folder}/changelog" OUTPUT_FILE "${documents}/changelog.Debian.gz"
        COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND gzip -9nc "${PROJECT_SOURCE_DIR}/CHANGELOG.md" OUTPUT_FILE "${documents}/changelog.gz"
        COMMAND_ERROR_IS_FATAL ANY)
    install(FILES "${folder}/copyright" "${documents}/changelog.Debian.gz" "${documents}/changelog.gz"
        DESTINATION "share/doc/${name}" COMPONENT ${name})
    if(EXISTS "${folder}/${name}.lintian-overrides")
        install(FILES "${folder}/${name}.lintian-overrides" DESTINATION share/lintian/overrides RENAME ${name}
            COMPONENT ${name})
    endif()
    if(EXISTS "${folder}/${name}.shlibs")
        configure_file("${folder}/${name}.shlibs" "${documents}/shlibs" @ONLY)
        file(WRITE "${documents}/triggers" "activate-noawait ldconfig\n")
        set(${prefix}_PACKAGE_SHLIBDEPS ON PARENT_SCOPE)
        set(${prefix}_PACKAGE_CONTROL_EXTRA "${documents}/shlibs;${documents}/triggers" PARENT_SCOPE)
    endif()
    if(IS_DIRECTORY "${folder}/${name}") # what dpkg reads and runs
        file(GLOB scripts "${folder}/${name}/*")
        foreach(script IN LISTS scripts)
            cmake_path(GET script FILENAME file)
            configure_file("${script}" "${documents}/${file}" @ONLY)
        endforeach()
        list(TRANSFORM scripts REPLACE ".*/" "${documents}/")
        set(${prefix}_PACKAGE_SHLIBDEPS ON PARENT_SCOPE)
        set(${prefix}_PACKAGE_CONTROL_EXTRA "${scripts}" PARENT_SCOPE)
    endif()
endfunction()

gorv_debian_package(libgorvutil1 libs "general-purpose classes for controller daemons
A log and component logs, a trace file, a recursive monitor and a thread base,
an IPv4 stream, a client of the controller's configuration service, PAM logins
without a terminal, a process runner and a command line parser.

This package holds the shared library that programs load.")
set(CPACK_DEBIAN_LIBGORVUTIL1_PACKAGE_DEPENDS "libkep1-substitute | libkep1")

gorv_debian_package(libgorvutil-dev libdevel "general-purpose classes for controller daemons (development)
The headers of libgorvutil1, its CMake package (find_package(gorvUtil), target
gorvUtil::gorvUtil) and its pkg-config file (gorvUtil).")
set(CPACK_DEBIAN_LIBGORVUTIL-DEV_PACKAGE_DEPENDS "libgorvutil1 (= ${debian_version}), libpam0g-dev")

gorv_debian_package(libkep1-substitute libs "stand-in for the controller's configuration service library
A libkep.so.1 for machines other than the controller: properties, events and
functions live in the process that loads it.")
set(CPACK_DEBIAN_LIBKEP1-SUBSTITUTE_PACKAGE_PROVIDES libkep1)
set(CPACK_DEBIAN_LIBKEP1-SUBSTITUTE_PACKAGE_CONFLICTS libkep1)

gorv_debian_package(gorvutil-consoled admin "console daemon of the controller
Users log in through PAM, read and write properties, raise events, call remote
functions and run a few programs; each of them can cost the controller so much
and no more. With the client, and the service for systemd.")
set(CPACK_DEBIAN_GORVUTIL-CONSOLED_PACKAGE_DEPENDS "libgorvutil1 (>= ${CPACK_PACKAGE_VERSION}), systemd, libpam-modules, libpam-runtime")
set(CPACK_DEBIAN_GORVUTIL-CONSOLED_PACKAGE_SUGGESTS "logrotate")

include(CPack)
