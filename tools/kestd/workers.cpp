#include "tools/kestd/workers.h"

#include <chrono>
#include <exception>
#include <pthread.h>

namespace kest::service
{
namespace
{

using namespace std::chrono_literals;

constexpr unsigned    spareThreads = 8;           // sleeping ones that are kept for the next burst
constexpr auto        watchTick    = 1ms;         // a job that takes longer gets a substitute
constexpr std::size_t stackBytes   = 1024 * 1024; // reserved; only what is used counts
constexpr unsigned    extraThreads = 3;  // beside those in work: one for events, and for the service's own jobs
constexpr unsigned    jobsAtOnce   = 4;  // begun before somebody looks for events again
constexpr unsigned    eventsAtOnce = 32; // handled before somebody looks for jobs again

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

void Workers::setLimits(unsigned most, unsigned mostEach)
{
    const Lock lock(m_lock);
    m_most     = most;
    m_mostEach = mostEach;
}

void Workers::submit(std::shared_ptr<Job> job) noexcept
{
    const Lock lock(m_lock);
    Share&     share                                                 = *job->m_share;
    Job* const last                                                  = job.get();
    (share.m_last != nullptr ? share.m_last->m_next : share.m_first) = std::move(job);
    share.m_last                                                     = last;
    queueForTurn(share); // the thread that submits is awake and looks here next
}

/// Lets an owner take part in the turns, if it is not there yet and may begin a job.
void Workers::queueForTurn(Share& share)
{
    if (&share == m_own.get() || share.m_inTurn || share.m_first == nullptr || share.m_working >= m_mostEach) {
        return;
    }
    share.m_inTurn                                                 = true;
    share.m_nextTurn                                               = nullptr;
    (m_lastTurn != nullptr ? m_lastTurn->m_nextTurn : m_firstTurn) = &share;
    m_lastTurn                                                     = &share;
}

bool Workers::hasJob() const { return m_own->m_first != nullptr || (m_firstTurn != nullptr && m_working < m_most); }

/// Takes the first job of the owner whose turn it is; that owner goes to the end of the line. There must be one.
std::shared_ptr<Job> Workers::takeJob()
{
    Share* share = m_own.get();
    if (share->m_first == nullptr) {
        share           = m_firstTurn;
        m_firstTurn     = share->m_nextTurn;
        m_lastTurn      = m_firstTurn != nullptr ? m_lastTurn : nullptr;
        share->m_inTurn = false;
        ++share->m_working;
        ++m_working;
    }
    std::shared_ptr<Job> job = std::move(share->m_first);
    share->m_first           = std::move(job->m_next);
    share->m_last            = share->m_first != nullptr ? share->m_last : nullptr;
    queueForTurn(*share);
    return job;
}

/// A job of the owner has been done.
void Workers::release(Share& share)
{
    if (&share != m_own.get()) {
        --share.m_working;
        --m_working;
        queueForTurn(share);
    }
}

/// Wakes a sleeping worker, or makes one.
void Workers::enlist()
{
    if (m_sleeping > m_called) {
        ++m_called;
        m_wanted.notify_one();
    } else if (m_threads < m_most + extraThreads) {
        m_threads += spawn(workMain) ? 1 : 0;
    }
}

void Workers::work()
{
    Lock lock(m_lock);
    bool surplus = false;
    while (!surplus && !(m_ended && !hasJob())) {
        const bool eventsFirst = !m_led && !m_ended && (m_eventsDue || m_unpolled >= jobsAtOnce);
        if (hasJob() && !eventsFirst) {
            perform(lock);
        } else if (!m_led) {
            lead(lock, !hasJob());
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
    std::shared_ptr<Job>         job   = takeJob();
    const std::shared_ptr<Share> share = job->m_share;
    ++m_steps;
    ++m_unpolled;
    if (hasJob() && m_sleeping > m_called) {
        enlist(); // shares the work; nobody is made for that
    }
    if (m_atEase) {
        m_atEase = false;
        m_stirred.notify_one();
    }
    lock.unlock();
    try {
        job->run();
    } catch (const std::exception&) {
        // nobody else suffers for it: the job has been told what running out of memory means
    }
    job.reset(); // its end may be a connection's
    lock.lock();
    release(*share);
}

/// @param mayWait  for an event; else only what has come is handled
void Workers::lead(Lock& lock, bool mayWait)
{
    m_led       = true;
    m_unpolled  = 0;
    m_eventsDue = false;
    lock.unlock();
    try {
        std::size_t handled = mayWait ? m_context.run_one() : m_context.poll_one();
        for (unsigned more = 1; handled > 0 && more < eventsAtOnce; ++more) {
            handled = m_context.poll_one();
        }
    } catch (const std::exception&) {
        // the handlers make good what they can; the context goes on
    }
    lock.lock();
    m_led = false;
    ++m_steps;
    ++m_looks;
    if (m_context.stopped()) {
        m_ended = true;
        m_wanted.notify_all();
        m_stirred.notify_all();
    }
}

/// Watches while there is something going on, and provides a substitute when nobody has looked for events for a while: those who would
/// are blocked, or busy.
void Workers::supervise()
{
    Lock          lock(m_lock);
    std::uint64_t stepsSeen = 0;
    std::uint64_t looksSeen = 0;
    while (!m_ended) {
        if (m_led && m_steps == stepsSeen) {
            m_atEase = true;
            m_stirred.wait(lock, [this] { return !m_atEase || m_ended; });
            m_atEase = false;
        } else {
            if (!m_led && m_looks == looksSeen) {
                m_eventsDue = true;
                enlist();
            }
            stepsSeen = m_steps;
            looksSeen = m_looks;
            m_stirred.wait_for(lock, watchTick, [this] { return m_ended; });
        }
    }
    m_supervised = false;
    m_gone.notify_all();
}

} // namespace kest::service
