#include "AThread.h"

#include "base/SharedField.h"

#include <sys/syscall.h>
#include <unistd.h>

AThread::AThread() : m_thread(0), m_attributes{}, m_stopRequested(false), m_running(false)
{}

AThread::~AThread() = default;

void AThread::start()
{
    pthread_attr_init(&m_attributes);
    pthread_attr_setdetachstate(&m_attributes, PTHREAD_CREATE_JOINABLE);
    writeShared(m_running, true);
    if (pthread_create(&m_thread, &m_attributes, entryPoint, this) != 0)
        m_thread = 0; // a failed creation may leave anything in it
    pthread_attr_destroy(&m_attributes);
}

void AThread::stopThread()
{
    writeShared(m_stopRequested, true);
}

void AThread::join()
{
    if (!readShared(m_running) || m_thread == 0)
        return;
    // A body that joins itself is refused by the system, and its owner can still join it.
    if (pthread_join(m_thread, nullptr) == 0)
        m_thread = 0;
}

bool AThread::isStopRequested()
{
    return readShared(m_stopRequested);
}

bool AThread::isRunning()
{
    return readShared(m_running);
}

std::int64_t AThread::getThreadID()
{
    return ::syscall(SYS_gettid);
}

void* AThread::entryPoint(void* object)
{
    static_cast<AThread*>(object)->run();
    return nullptr;
}
