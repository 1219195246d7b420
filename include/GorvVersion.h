// SPDX-License-Identifier: BSD-3-Clause
#pragma once

/// @file
/// The version of the headers, for the preprocessor, and of the library that was loaded.

#include "GorvApi.h"

#define GORV_VERSION_MAJOR 1 ///< Grows when hosts must be built again.
#define GORV_VERSION_MINOR 0 ///< Grows when something is added.
#define GORV_VERSION_PATCH 0 ///< Grows with each release of faults mended.

/// The version as one number, 10203 for 1.2.3: `#if GORV_VERSION >= 10100`.
#define GORV_VERSION (GORV_VERSION_MAJOR * 10000 + GORV_VERSION_MINOR * 100 + GORV_VERSION_PATCH)

/// Returns the version of the library that was loaded, as GORV_VERSION was when it was built: at least the
/// one that the host was built with, if it was installed rightly. Safe from any thread.
GORV_API int gorvVersion() noexcept;
