# SPDX-License-Identifier: BSD-3-Clause
# Compiler and linker options that every target of this project shares.
include(CheckLinkerFlag)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

function(gorv_compile_options target)
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
        POSITION_INDEPENDENT_CODE ON)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wformat=2)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
        target_compile_options(${target} PRIVATE -Wno-restrict) # it misjudges std::string there
    endif()
    if(GORV_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
    gorv_harden(${target})
endfunction()

# What stands between a fault and whoever would exploit it; script/hardening finds it again in the built files. A
# sanitizer watches more closely, and is disturbed by it.
function(gorv_harden target)
    if(NOT GORV_HARDEN OR CMAKE_CXX_FLAGS MATCHES "-fsanitize")
        return()
    endif()
    set(guards -fstack-protector-strong -fstack-clash-protection)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
        list(APPEND guards -fcf-protection=full)
    elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        list(APPEND guards -mbranch-protection=standard)
    endif()
    set(fortify 2)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
        set(fortify 3)
    endif()
    set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>) # which fortifying asks for
    target_compile_options(${target} PRIVATE ${guards} -U_FORTIFY_SOURCE $<${optimised}:-D_FORTIFY_SOURCE=${fortify}>)
    target_link_options(${target} PRIVATE ${guards} "LINKER:-z,relro,-z,now,-z,noexecstack,-z,text")
endfunction()

# The library itself: its calls to its own functions skip the symbol table, only the listed symbols leave it, and libssl
# stays a dependency although nothing in it is called. The new dynamic tags let LD_LIBRARY_PATH put another libkep.so.1
# in front of the build tree's. It stays loaded: its signal handler and what it leaves in threads would be gone. What
# makes code smaller differs between the processors.
function(gorv_library_options target)
    include(CheckIPOSupported)
    check_ipo_supported(RESULT supported OUTPUT ignored LANGUAGES CXX)
    set_target_properties(${target} PROPERTIES INTERPROCEDURAL_OPTIMIZATION_RELEASE ${supported})
    set(lean -fno-semantic-interposition)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
        # With a frame pointer the unwind tables need not follow each push.
        list(APPEND lean -fno-plt $<$<CONFIG:Release>:-fno-omit-frame-pointer>)
    elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        list(APPEND lean -mno-outline-atomics $<$<CONFIG:Release>:-fomit-frame-pointer>)
        # The cure for a fault of the Cortex-A53 that needs no page of its own.
        check_linker_flag(CXX LINKER:--fix-cortex-a53-843419=adr GORV_HAS_FIX_843419_ADR)
        if(GORV_HAS_FIX_843419_ADR)
            target_link_options(${target} PRIVATE LINKER:--fix-cortex-a53-843419=adr)
        endif()
    endif()
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        # It holds these for functions that nothing leaves, and a thread that is cancelled in one ended the process.
        list(APPEND lean -fno-builtin-fflush -fno-builtin-fputs -fno-builtin-fwrite -fno-builtin-printf -fno-builtin-puts
            -fno-builtin-perror)
    endif()
    list(APPEND lean $<$<CONFIG:Release>:-Oz>)
    target_compile_options(${target} PRIVATE ${lean})
    target_link_options(${target} PRIVATE ${lean}) # link-time optimisation asks again
    target_link_options(${target} PRIVATE "LINKER:--version-script=${GORV_VERSION_SCRIPT}" LINKER:--enable-new-dtags
        "LINKER:-z,nodelete")
    if(GORV_PAGE_SIZE)
        target_link_options(${target} PRIVATE "LINKER:-z,max-page-size=${GORV_PAGE_SIZE}")
    endif()
    if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
        target_link_options(${target} PRIVATE "LINKER:-z,defs")
    endif()
    target_link_libraries(${target} PRIVATE "-Wl,--push-state,--no-as-needed" OpenSSL::SSL "-Wl,--pop-state")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${GORV_VERSION_SCRIPT}")
endfunction()
