// SPDX-License-Identifier: BSD-3-Clause
#include "Compare.h"
#include "Monitor.h"

#include <mutex>

namespace {

Monitor s_monitor;
std::recursive_mutex s_mutex;

void fastLock(benchmark::State& state)
{
    for (auto _ : state) {
        s_monitor.fastLock();
        s_monitor.releaseLock();
    }
}

void recursiveMutex(benchmark::State& state)
{
    for (auto _ : state) {
        s_mutex.lock();
        s_mutex.unlock();
    }
}

void guard(benchmark::State& state)
{
    for (auto _ : state)
        const MonitorLock lock = s_monitor.acquireLock();
}

void uniqueLock(benchmark::State& state)
{
    for (auto _ : state)
        const std::unique_lock<std::recursive_mutex> lock(s_mutex);
}

} // namespace

void registerSyncComparisons()
{
    compare({"fastLock + releaseLock, uncontended", "std::recursive_mutex", 1.15}, fastLock, recursiveMutex);
    compare({"fastLock + releaseLock, 2 threads", "std::recursive_mutex", 1.15}, fastLock, recursiveMutex, 2);
    compare({"acquireLock guard", "std::unique_lock<std::recursive_mutex>", 1.50}, guard, uniqueLock);
}
