# SPDX-License-Identifier: BSD-3-Clause
# What may leave the library: all of the public classes, of which each header has one and its name, and a few globals.
set(GORV_EXPORTED_GLOBALS NextMonitorId gTrace se "ShowLastError(char*)" "gorvVersion()" "signalHandler(int)")

file(GLOB GORV_HEADERS CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/*.h")
set(GORV_EXPORTED_CLASSES "${GORV_HEADERS}")
list(TRANSFORM GORV_EXPORTED_CLASSES REPLACE ".*/(.*)\\.h$" "\\1")
list(REMOVE_ITEM GORV_EXPORTED_CLASSES GorvApi GorvVersion)

set(exports "")
# Operations and fields, templates, tables and type information, thunks.
foreach(class IN LISTS GORV_EXPORTED_CLASSES)
    string(APPEND exports "\n      ${class}::*; void?${class}::*; *?for?${class}; *?thunk?to?${class}::*;")
endforeach()
foreach(name IN LISTS GORV_EXPORTED_GLOBALS)
    string(APPEND exports "\n      \"${name}\";")
endforeach()
set(GORV_VERSION_SCRIPT "${PROJECT_BINARY_DIR}/gorvUtil.map")
configure_file("${CMAKE_CURRENT_LIST_DIR}/gorvUtil.map.in" "${GORV_VERSION_SCRIPT}" @ONLY)
