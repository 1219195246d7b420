// Hosts embed the objects by value and derive from the classes, so no field may move. Built with access to
// private members.

#include "AComponentLog.h"
#include "AInteger.h"
#include "ALog.h"
#include "ASocket.h"
#include "AThread.h"
#include "ATrace.h"
#include "AUtil.h"
#include "CommandLine.h"
#include "GorvSocketException.h"
#include "KEPClient.h"
#include "NumberFormatException.h"
#include "PAMHelper.h"
#include "SystemExec.h"

#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <type_traits>
#include <vector>

namespace {

struct Field {
    const char* name;
    std::size_t offset;
    std::size_t size;
    std::size_t alignment;
};

#define FIELD(type, member)                                                                                            \
    Field { #type "::" #member, offsetof(type, member), sizeof(type::member), alignof(decltype(type::member)) }

std::size_t roundUp(std::size_t offset, std::size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

/// The fields follow each other in this order without a gap that alignment does not ask for.
void expectLayout(std::size_t begin, const std::vector<Field>& fields, std::size_t objectSize) {
    std::size_t end = begin;
    for (const Field& field : fields) {
        EXPECT_EQ(field.offset, roundUp(end, field.alignment)) << field.name;
        end = field.offset + field.size;
    }
    EXPECT_EQ(objectSize, roundUp(end, alignof(void*))) << fields.front().name;
}

constexpr std::size_t kVtable = sizeof(void*);

TEST(LayoutTest, FieldsStandInTheirOrder) {
    expectLayout(kVtable,
                 {FIELD(Monitor, m_mutex), FIELD(Monitor, m_condition), FIELD(Monitor, m_id), FIELD(Monitor, m_log)},
                 sizeof(Monitor));
    expectLayout(kVtable, {FIELD(MonitorLock, m_monitor), FIELD(MonitorLock, m_released)}, sizeof(MonitorLock));
    expectLayout(kVtable,
                 {FIELD(ALog, m_file), FIELD(ALog, m_enabled), FIELD(ALog, m_showTimestamp),
                  FIELD(ALog, m_echoToConsole), FIELD(ALog, m_ownsFile), FIELD(ALog, m_name), FIELD(ALog, m_monitor),
                  FIELD(ALog, m_buffer), FIELD(ALog, m_bufferSize)},
                 sizeof(ALog));
    expectLayout(kVtable,
                 {FIELD(AComponentLog, m_baseLog), FIELD(AComponentLog, m_enabled), FIELD(AComponentLog, m_name),
                  FIELD(AComponentLog, m_children)},
                 sizeof(AComponentLog));
    expectLayout(
        kVtable,
        {FIELD(KEPClient, m_initialized), FIELD(KEPClient, m_name), FIELD(KEPClient, m_id), FIELD(KEPClient, m_log)},
        sizeof(KEPClient));
    expectLayout(kVtable,
                 {FIELD(PAMHelper, m_conv), FIELD(PAMHelper, m_pamHandle), FIELD(PAMHelper, m_kepSessionId),
                  FIELD(PAMHelper, m_sessionId), FIELD(PAMHelper, m_authResult), FIELD(PAMHelper, m_calls),
                  FIELD(PAMHelper, m_service), FIELD(PAMHelper, m_user), FIELD(PAMHelper, m_password),
                  FIELD(PAMHelper, m_remoteIP), FIELD(PAMHelper, m_interfaceIP), FIELD(PAMHelper, m_fwInProgress),
                  FIELD(PAMHelper, m_fwSemLocked), FIELD(PAMHelper, m_sessionOpen), FIELD(PAMHelper, m_disposed),
                  FIELD(PAMHelper, m_wasRegistered), FIELD(PAMHelper, m_hasSetFlag)},
                 sizeof(PAMHelper));
    expectLayout(kVtable, {FIELD(Exception, m_message)}, sizeof(NumberFormatException));
    expectLayout(kVtable, {FIELD(AInteger, m_value)}, sizeof(AInteger));
    expectLayout(0,
                 {FIELD(GorvSocketException, m_function), FIELD(GorvSocketException, m_line),
                  FIELD(GorvSocketException, m_message)},
                 sizeof(GorvSocketException));
    expectLayout(2 * kVtable,
                 {FIELD(ASocket, m_socket), FIELD(ASocket, m_networkByteOrder), FIELD(ASocket, m_address),
                  FIELD(ASocket, m_log), FIELD(ASocket, m_socketState), FIELD(ASocket, m_silent)},
                 sizeof(ASocket));
    expectLayout(kVtable,
                 {FIELD(ATrace, m_disabled), FIELD(ATrace, m_fileName), FIELD(ATrace, m_file), FIELD(ATrace, m_level),
                  FIELD(ATrace, m_firstOpen), FIELD(ATrace, m_monitor)},
                 sizeof(ATrace));
    expectLayout(kVtable,
                 {FIELD(AThread, m_thread), FIELD(AThread, m_attributes), FIELD(AThread, m_stopRequested),
                  FIELD(AThread, m_running)},
                 sizeof(AThread));
    expectLayout(0,
                 {FIELD(SystemExec, m_command), FIELD(SystemExec, m_stdOut), FIELD(SystemExec, m_stdIn),
                  FIELD(SystemExec, m_stdErr), FIELD(SystemExec, m_pid), FIELD(SystemExec, m_argList)},
                 sizeof(SystemExec));
    expectLayout(0, {FIELD(CommandLine, m_args)}, sizeof(CommandLine));
}

std::size_t slotOf(auto operation) {
    std::size_t words[2];
    std::memcpy(words, &operation, sizeof words);
    return words[0] / sizeof(void*);
}

std::vector<std::size_t> slotsOf(auto... operations) { return {slotOf(operations)...}; }

TEST(LayoutTest, VirtualOperationsKeepTheirSlots) {
    using Slots = std::vector<std::size_t>;
    using Out = AOutputStream;
    using In = AInputStream;
    EXPECT_EQ(slotsOf(&Out::write, &Out::writeInt, &Out::writeString, &Out::flush, &Out::close),
              (Slots{0, 1, 2, 3, 4}));
    EXPECT_EQ(slotsOf(&In::read, &In::readInt, &In::readShort, &In::readByte, &In::readFully), (Slots{0, 1, 2, 3, 4}));
    EXPECT_EQ(slotsOf(&ASocket::write, &ASocket::writeInt, &ASocket::writeString, &ASocket::flush, &ASocket::close,
                      &ASocket::writeByte, &ASocket::writeShort, &ASocket::read, &ASocket::readInt, &ASocket::readShort,
                      &ASocket::readByte, &ASocket::readFully),
              (Slots{0, 1, 2, 3, 4, 7, 8, 9, 10, 11, 12, 13})); // destruction takes 5 and 6
    EXPECT_EQ(slotsOf(&AThread::start, &AThread::run, &AThread::stopThread), (Slots{2, 3, 4})); // behind destruction
}

// What has no table of virtual operations gets none, and the interfaces are not destroyed through.
static_assert(!std::is_polymorphic_v<GorvSocketException> && !std::is_polymorphic_v<SystemExec> &&
              !std::is_polymorphic_v<CommandLine> && !std::is_polymorphic_v<AUtil> &&
              !std::has_virtual_destructor_v<AOutputStream> && !std::has_virtual_destructor_v<AInputStream> &&
              std::has_virtual_destructor_v<AInteger> && std::has_virtual_destructor_v<Exception> &&
              std::has_virtual_destructor_v<ASocket> && std::has_virtual_destructor_v<AThread>);

TEST(LayoutTest, WhatTheClassesAddLivesInPadding) {
    EXPECT_EQ(offsetof(ALog, m_name), 3 * sizeof(void*)); // behind the stream and three flags
    EXPECT_EQ(offsetof(PAMHelper, m_service), roundUp(offsetof(PAMHelper, m_authResult) + 4, alignof(std::string)));
    EXPECT_EQ(sizeof(PAMHelper), roundUp(offsetof(PAMHelper, m_disposed) + 1, alignof(void*)));
}

TEST(LayoutTest, LibrarysOwnMonitorsTakeTheFirstIds) {
    EXPECT_EQ(PAMHelper::instanceMapMonitor.m_id, 2);
    EXPECT_EQ(PAMHelper::instanceFwMapMonitor.m_id, 3);
}

TEST(LayoutTest, LevelsAreConstantsWithAnAddress) {
    static_assert(ALog::INFO == 1 && ALog::WARNING == 2 && ALog::ERROR == 3 && ALog::TRACE == 4);
    static_assert(AComponentLog::INFO == 1 && AComponentLog::TRACE == 4);
    for (const int* level : {&ALog::INFO, &AComponentLog::WARNING, &ALog::ERROR, &AComponentLog::TRACE})
        EXPECT_NE(level, nullptr);
}

template <typename T>
constexpr bool kStaysInPlace = !std::is_copy_constructible_v<T> && !std::is_move_constructible_v<T> &&
                               !std::is_copy_assignable_v<T> && std::has_virtual_destructor_v<T>;

static_assert(kStaysInPlace<Monitor> && kStaysInPlace<MonitorLock> && kStaysInPlace<ALog> &&
              kStaysInPlace<AComponentLog> && kStaysInPlace<KEPClient> && kStaysInPlace<PAMHelper> &&
              kStaysInPlace<ATrace>);

} // namespace
