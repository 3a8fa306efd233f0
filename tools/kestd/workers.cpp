#include "tools/kestd/workers.h"

#include <chrono>
#include <pthread.h>

namespace kest::service
{
namespace
{

using namespace std::chrono_literals;

constexpr unsigned    spareThreads = 8;           // sleeping ones that are kept for the next burst
constexpr auto        watchTick    = 1ms;         // a job that takes longer gets a substitute
constexpr std::size_t stackBytes   = 1024 * 1024; // reserved; only what is used counts

} // namespace

bool Workers::start()
{
    const Lock lock(m_lock);
    m_supervised = spawn(superviseMain);
    for (const bool more : {true, m_supervised}) {
        m_threads += more && spawn(workMain) ? 1 : 0;
    }
    m_ended = m_threads == 0;
    m_stirred.notify_all();
    return m_threads > 0 && m_supervised;
}

void Workers::join()
{
    Lock lock(m_lock);
    m_gone.wait(lock, [this] { return m_threads == 0 && !m_supervised; });
}

void* Workers::workMain(void* workers)
{
    static_cast<Workers*>(workers)->work();
    return nullptr;
}

void* Workers::superviseMain(void* workers)
{
    static_cast<Workers*>(workers)->supervise();
    return nullptr;
}

bool Workers::spawn(void* (*main)(void*))
{
    pthread_attr_t attributes;
    pthread_t      thread{};
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackBytes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const bool made = pthread_create(&thread, &attributes, main, this) == 0;
    pthread_attr_destroy(&attributes);
    return made;
}

void Workers::submit(std::shared_ptr<Job> job)
{
    const Lock lock(m_lock);
    m_jobs.push_back(std::move(job)); // the thread that submits is awake and looks here next
}

/// Wakes a sleeping worker, or makes one.
void Workers::enlist()
{
    if (m_sleeping > m_called) {
        ++m_called;
        m_wanted.notify_one();
    } else if (m_threads < m_most) {
        m_threads += spawn(workMain) ? 1 : 0;
    }
}

void Workers::work()
{
    Lock lock(m_lock);
    bool surplus = false;
    while (!surplus && !(m_ended && m_jobs.empty())) {
        if (!m_jobs.empty()) {
            perform(lock);
        } else if (!m_led) {
            lead(lock);
        } else if (m_sleeping >= spareThreads) {
            surplus = true;
        } else {
            ++m_sleeping;
            m_wanted.wait(lock, [this] { return m_called > 0 || m_ended; });
            --m_sleeping;
            m_called -= m_called > 0 ? 1 : 0;
        }
    }
    --m_threads;
    m_gone.notify_all();
}

void Workers::perform(Lock& lock)
{
    std::shared_ptr<Job> job = std::move(m_jobs.front());
    m_jobs.pop_front();
    ++m_steps;
    if (!m_jobs.empty() && m_sleeping > m_called) {
        enlist(); // shares the work; nobody is made for that
    }
    if (m_atEase) {
        m_atEase = false;
        m_stirred.notify_one();
    }
    lock.unlock();
    job->run();
    job.reset(); // its end may be a connection's
    lock.lock();
}

void Workers::lead(Lock& lock)
{
    m_led = true;
    lock.unlock();
    m_context.run_one();
    m_context.poll();
    lock.lock();
    m_led = false;
    ++m_steps;
    if (m_context.stopped()) {
        m_ended = true;
        m_wanted.notify_all();
        m_stirred.notify_all();
    }
}

/// Watches while there is something going on, and provides a substitute when nothing moves though nobody waits for events.
void Workers::supervise()
{
    Lock          lock(m_lock);
    std::uint64_t seen = 0;
    while (!m_ended) {
        if (m_led && m_steps == seen) {
            m_atEase = true;
            m_stirred.wait(lock, [this] { return !m_atEase || m_ended; });
            m_atEase = false;
        } else {
            if (m_steps == seen) {
                enlist();
            }
            seen = m_steps;
            m_stirred.wait_for(lock, watchTick, [this] { return m_ended; });
        }
    }
    m_supervised = false;
    m_gone.notify_all();
}

} // namespace kest::service
