# SPDX-License-Identifier: BSD-3-Clause
# Finds the controller's configuration service library and defines the target KEP::kep.
include(FindPackageHandleStandardArgs)

find_path(KEP_INCLUDE_DIR kep.h)
find_library(KEP_LIBRARY NAMES kep libkep.so.1)
find_package_handle_standard_args(KEP REQUIRED_VARS KEP_LIBRARY KEP_INCLUDE_DIR)

if(KEP_FOUND AND NOT TARGET KEP::kep)
    add_library(KEP::kep UNKNOWN IMPORTED)
    set_target_properties(KEP::kep PROPERTIES
        IMPORTED_LOCATION "${KEP_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${KEP_INCLUDE_DIR}")
endif()
mark_as_advanced(KEP_INCLUDE_DIR KEP_LIBRARY)
