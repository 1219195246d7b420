// SPDX-License-Identifier: BSD-3-Clause
// Hosts embed the objects by value, derive from them and compile the constants in. Built with access to
// private members. Offsets, sizes and the slots of virtual operations are compared with the record in abi/.

#include "AComponentLog.h"
#include "AInteger.h"
#include "ALog.h"
#include "ASocket.h"
#include "AThread.h"
#include "ATrace.h"
#include "Exception.h"
#include "GorvSocketException.h"
#include "KEPClient.h"
#include "Monitor.h"
#include "PAMHelper.h"
#include "SystemExec.h"

#include <cstddef>
#include <gtest/gtest.h>
#include <vector>

TEST(LayoutTest, LibrarysOwnMonitorsTakeTheFirstIds)
{
    EXPECT_EQ(PAMHelper::instanceMapMonitor.m_id, 2);
    EXPECT_EQ(PAMHelper::instanceFwMapMonitor.m_id, 3);
}

/// Where the first field of a host's class lies that derives from one of ours: right behind our last field.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
template <typename Base>
struct Derived : Base {
    char first;
};
template <typename Class>
constexpr std::size_t s_end = offsetof(Derived<Class>, first);

/// Where fields of these types end, one behind the other. What an object has besides must fit between them.
template <typename... Fields>
constexpr std::size_t endOf()
{
    std::size_t end = 0;
    ((end = (end + alignof(Fields) - 1) / alignof(Fields) * alignof(Fields) + sizeof(Fields)), ...);
    return end;
}

using Table = void*; // of the virtual operations
using String = std::string;
static_assert(s_end<AComponentLog> == endOf<Table, ALog*, bool, String, std::vector<AComponentLog*>>());
static_assert(s_end<AInteger> == endOf<Table, int>());
static_assert(s_end<ALog> == endOf<Table, FILE*, bool, bool, bool, char*, Monitor, char*, int>());
static_assert(s_end<ASocket> == endOf<Table, Table, int, int, sockaddr_in, AComponentLog, int, bool>());
static_assert(s_end<AThread> == endOf<Table, pthread_t, pthread_attr_t, bool, bool>());
static_assert(s_end<ATrace> == endOf<Table, bool, char*, FILE*, int, bool, Monitor>());
static_assert(s_end<Exception> == endOf<Table, String>());
static_assert(s_end<GorvSocketException> == endOf<String, int, String>());
static_assert(s_end<KEPClient> == endOf<Table, bool, char*, int, AComponentLog>());
static_assert(s_end<Monitor> == endOf<Table, pthread_mutex_t, pthread_cond_t, int, AComponentLog*>());
static_assert(s_end<MonitorLock> == endOf<Table, Monitor*, int>());
static_assert(s_end<PAMHelper> == endOf<Table, pam_conv, pam_handle_t*, int, String, int, String, String,
                                        String, String, String, bool, bool, bool, bool>());
static_assert(s_end<SystemExec> == endOf<String, int, int, int, int, char**>());

static_assert(ALog::INFO == 1 && ALog::WARNING == 2 && ALog::ERROR == 3 && ALog::TRACE == 4);
static_assert(AComponentLog::INFO == 1 && AComponentLog::WARNING == 2 && AComponentLog::ERROR == 3 &&
              AComponentLog::TRACE == 4);
static_assert(ASocket::NOT_CONNECTED == 0 && ASocket::CONNECTED == 1 && ASocket::CLOSED == 2 &&
              ASocket::CLOSED_BY_PEER == 3 && ASocket::CONNECT_FAILED == 4 && ASocket::IO_ERROR == 5);
