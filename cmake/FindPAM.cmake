# SPDX-License-Identifier: BSD-3-Clause
# Finds Linux-PAM and defines the target PAM::PAM.
include(FindPackageHandleStandardArgs)

find_path(PAM_INCLUDE_DIR security/pam_appl.h)
find_library(PAM_LIBRARY pam)
find_package_handle_standard_args(PAM REQUIRED_VARS PAM_LIBRARY PAM_INCLUDE_DIR)

if(PAM_FOUND AND NOT TARGET PAM::PAM)
    add_library(PAM::PAM UNKNOWN IMPORTED)
    set_target_properties(PAM::PAM PROPERTIES
        IMPORTED_LOCATION "${PAM_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${PAM_INCLUDE_DIR}")
endif()
mark_as_advanced(PAM_INCLUDE_DIR PAM_LIBRARY)
