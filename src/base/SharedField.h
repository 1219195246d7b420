// SPDX-License-Identifier: BSD-3-Clause
#pragma once

#include <atomic>
#include <type_traits>

/// Atomic access to a plain field that several threads touch without a common lock.
template <typename T>
T readShared(T& field) noexcept
{
    return std::atomic_ref<T>(field).load(std::memory_order_acquire);
}

/// The writing side of readShared().
template <typename T>
void writeShared(T& field, std::type_identity_t<T> value) noexcept
{
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}
