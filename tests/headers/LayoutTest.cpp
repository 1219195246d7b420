// Hosts call virtual operations by slot, embed the objects by value and compile the constants in. Built with
// access to private members. Offsets and sizes are compared with the record in abi/.

#include "AComponentLog.h"
#include "ALog.h"
#include "ASocket.h"
#include "AThread.h"
#include "PAMHelper.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

std::vector<std::size_t> slotsOf(auto... operations)
{
    const auto slotOf = [](auto operation) {
        std::size_t words[2];
        std::memcpy(words, &operation, sizeof words);
        return words[0] / sizeof(void*);
    };
    return {slotOf(operations)...};
}

TEST(LayoutTest, VirtualOperationsKeepTheirSlots)
{
    using Slots = std::vector<std::size_t>;
    using Out = AOutputStream;
    using In = AInputStream;
    EXPECT_EQ(slotsOf(&Out::write, &Out::writeInt, &Out::writeString, &Out::flush, &Out::close),
              (Slots{0, 1, 2, 3, 4}));
    EXPECT_EQ(slotsOf(&In::read, &In::readInt, &In::readShort, &In::readByte, &In::readFully),
              (Slots{0, 1, 2, 3, 4}));
    EXPECT_EQ(slotsOf(&ASocket::write, &ASocket::writeInt, &ASocket::writeString, &ASocket::flush,
                      &ASocket::close, &ASocket::writeByte, &ASocket::writeShort, &ASocket::read,
                      &ASocket::readInt, &ASocket::readShort, &ASocket::readByte, &ASocket::readFully),
              (Slots{0, 1, 2, 3, 4, 7, 8, 9, 10, 11, 12, 13})); // destruction takes 5 and 6
    EXPECT_EQ(slotsOf(&AThread::start, &AThread::run, &AThread::stopThread),
              (Slots{2, 3, 4})); // behind destruction
}

TEST(LayoutTest, LibrarysOwnMonitorsTakeTheFirstIds)
{
    EXPECT_EQ(PAMHelper::instanceMapMonitor.m_id, 2);
    EXPECT_EQ(PAMHelper::instanceFwMapMonitor.m_id, 3);
}

static_assert(ALog::INFO == 1 && ALog::WARNING == 2 && ALog::ERROR == 3 && ALog::TRACE == 4);
static_assert(AComponentLog::INFO == 1 && AComponentLog::WARNING == 2 && AComponentLog::ERROR == 3 &&
              AComponentLog::TRACE == 4);
static_assert(ASocket::NOT_CONNECTED == 0 && ASocket::CONNECTED == 1 && ASocket::CLOSED == 2 &&
              ASocket::CLOSED_BY_PEER == 3 && ASocket::CONNECT_FAILED == 4 && ASocket::IO_ERROR == 5);
