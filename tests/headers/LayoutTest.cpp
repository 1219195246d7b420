// Hosts embed the objects by value and compile the constants in. Built with access to private members. Offsets, sizes
// and the slots of virtual operations are compared with the record in abi/.

#include "AComponentLog.h"
#include "ALog.h"
#include "ASocket.h"
#include "ATrace.h"
#include "KEPClient.h"
#include "PAMHelper.h"

#include <gtest/gtest.h>
#include <type_traits>

TEST(LayoutTest, LibrarysOwnMonitorsTakeTheFirstIds) {
    EXPECT_EQ(PAMHelper::instanceMapMonitor.m_id, 2);
    EXPECT_EQ(PAMHelper::instanceFwMapMonitor.m_id, 3);
}

static_assert(ALog::INFO == 1 && ALog::WARNING == 2 && ALog::ERROR == 3 && ALog::TRACE == 4);
static_assert(AComponentLog::INFO == 1 && AComponentLog::WARNING == 2 && AComponentLog::ERROR == 3 &&
              AComponentLog::TRACE == 4);
static_assert(ASocket::NOT_CONNECTED == 0 && ASocket::CONNECTED == 1 && ASocket::CLOSED == 2 &&
              ASocket::CLOSED_BY_PEER == 3 && ASocket::CONNECT_FAILED == 4 && ASocket::IO_ERROR == 5);

template <typename T>
constexpr bool kStaysInPlace =
    !std::is_copy_constructible_v<T> && !std::is_move_constructible_v<T> && !std::is_copy_assignable_v<T>;

static_assert(kStaysInPlace<Monitor> && kStaysInPlace<MonitorLock> && kStaysInPlace<ALog> &&
              kStaysInPlace<AComponentLog> && kStaysInPlace<KEPClient> && kStaysInPlace<PAMHelper> &&
              kStaysInPlace<ATrace>);
