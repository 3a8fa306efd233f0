#include "tools/kestd/workers.h"

#include <pthread.h>

namespace kest::service
{
namespace
{

constexpr unsigned    firstThreads = 2;
constexpr unsigned    spareThreads = 8;           // unblocked ones that are kept for the next burst
constexpr std::size_t stackBytes   = 1024 * 1024; // reserved; only what is used counts

} // namespace

bool Workers::start()
{
    const std::lock_guard guard(m_lock);
    while (m_threads < firstThreads && spawn()) {}
    return m_threads > 0;
}

void Workers::join()
{
    std::unique_lock guard(m_lock);
    m_ended.wait(guard, [this] { return m_threads == 0; });
}

void* Workers::threadMain(void* workers)
{
    static_cast<Workers*>(workers)->run();
    return nullptr;
}

bool Workers::spawn()
{
    pthread_attr_t attributes;
    pthread_t      thread{};
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackBytes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const bool made = pthread_create(&thread, &attributes, threadMain, this) == 0;
    pthread_attr_destroy(&attributes);
    m_threads += made ? 1 : 0;
    return made;
}

void Workers::run()
{
    bool surplus = false;
    while (!surplus && !m_context.stopped()) {
        m_context.run_one();
        surplus = leavesSurplus();
    }
    const std::lock_guard guard(m_lock);
    m_threads -= surplus ? 0 : 1;
    m_ended.notify_all();
}

/// Takes the calling thread off the crew when there are enough without it.
bool Workers::leavesSurplus()
{
    const std::lock_guard guard(m_lock);
    const bool            surplus = m_threads - m_blocked > spareThreads;
    m_threads -= surplus ? 1 : 0;
    return surplus;
}

void Workers::beginBlocking()
{
    const std::lock_guard guard(m_lock);
    ++m_blocked;
    if (m_blocked == m_threads && m_threads < m_most) {
        spawn();
    }
}

void Workers::endBlocking()
{
    const std::lock_guard guard(m_lock);
    --m_blocked;
}

} // namespace kest::service
