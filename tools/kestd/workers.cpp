#include "tools/kestd/workers.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <pthread.h>
#include <sched.h>

namespace kest::service
{
namespace
{

/// Sleeping threads that are kept for the next burst.
constexpr unsigned spareThreads = 8;
/// Stack of a thread. It is only reserved: unused pages take no memory.
constexpr std::size_t stackBytes = 1024 * 1024;
/// Beside those in work: one for events, and some for the service's own jobs.
constexpr unsigned extraThreads = 3;
/// Begun before a thread looks for events again.
constexpr unsigned jobsAtOnce = 4;
/// Handled before a thread looks for jobs again.
constexpr unsigned eventsAtOnce = 32;
/// Beyond the number of processors: while one thread waits for the disk, another has its processor.
constexpr unsigned threadsInWaiting = 1;

/// Processors that this process may use.
unsigned processorsHad()
{
    cpu_set_t places;
    CPU_ZERO(&places);
    return sched_getaffinity(0, sizeof places, &places) == 0 ? static_cast<unsigned>(CPU_COUNT(&places)) : 1;
}

} // namespace

workerPool::workerPool(asio::io_context& context, tuning options)
    : m_context(context), m_options(options),
      m_mostAbreast(options.abreast != 0 ? options.abreast : std::max(1U, processorsHad()) + threadsInWaiting),
      m_jobs(options.clock)
{
}

std::int64_t workerPool::steadyNs()
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

bool workerPool::start()
{
    const poolLock lock(m_lock);
    m_supervised = spawn(superviseMain);
    for (const bool more : {true, m_supervised}) {
        m_threads += more && spawn(workMain) ? 1 : 0;
    }
    m_ended = m_threads == 0;
    m_stirred.notify_all();
    return m_threads > 0 && m_supervised;
}

void workerPool::join()
{
    poolLock lock(m_lock);
    m_gone.wait(lock, [this] { return m_threads == 0 && !m_supervised; });
}

void* workerPool::workMain(void* workers)
{
    static_cast<workerPool*>(workers)->work();
    return nullptr;
}

void* workerPool::superviseMain(void* workers)
{
    static_cast<workerPool*>(workers)->supervise();
    return nullptr;
}

bool workerPool::spawn(void* (*main)(void*))
{
    pthread_attr_t attributes;
    pthread_t thread{};
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackBytes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    const bool made = pthread_create(&thread, &attributes, main, this) == 0;
    pthread_attr_destroy(&attributes);
    return made;
}

void workerPool::setLimits(unsigned most, unsigned mostEach)
{
    const poolLock lock(m_lock);
    m_jobs.setLimits(most, mostEach);
}

void workerPool::submit(std::shared_ptr<serviceJob> job) noexcept
{
    const poolLock lock(m_lock);
    // the thread that submits is awake and looks here next
    m_jobs.add(std::move(job));
}

/// Wakes a sleeping worker, or makes one.
void workerPool::enlist()
{
    if (m_sleeping > m_called) {
        ++m_called;
        m_wanted.notify_one();
    } else if (m_threads < m_jobs.most() + extraThreads) {
        m_threads += spawn(workMain) ? 1 : 0;
    }
}

/// Whether a worker may go on; if it does not belong to the current watch, it joins while there is room for one more.
bool workerPool::joins(std::uint64_t& watch)
{
    if (watch != m_watch && m_abreast < m_mostAbreast) {
        watch = m_watch;
        ++m_abreast;
    }
    return watch == m_watch || m_ended;
}

void workerPool::work()
{
    poolLock lock(m_lock);
    bool surplus = false;
    std::uint64_t watch = 0;
    while (!surplus && !(m_ended && !m_jobs.hasJob())) {
        const bool joined = joins(watch);
        const bool eventsFirst = !m_led && !m_ended && (m_eventsDue || m_unpolled >= jobsAtOnce);
        if (joined && m_jobs.hasJob() && !eventsFirst) {
            perform(lock);
        } else if (joined && !m_led) {
            lead(lock, !m_jobs.hasJob());
        } else if (m_sleeping >= spareThreads) {
            surplus = true;
        } else {
            m_abreast -= watch == m_watch ? 1 : 0;
            watch = 0;
            ++m_sleeping;
            m_wanted.wait(lock, [this] { return m_called > 0 || m_ended; });
            --m_sleeping;
            m_called -= m_called > 0 ? 1 : 0;
        }
    }
    m_abreast -= watch == m_watch ? 1 : 0;
    --m_threads;
    m_gone.notify_all();
}

std::chrono::nanoseconds workerPool::longestRun() const
{
    const poolLock lock(m_lock);
    return std::chrono::nanoseconds(m_oldest != nullptr ? m_options.clock() - m_oldest->begunNs : 0);
}

/// Adds a run behind those that began before it.
void workerPool::enter(jobInWork& run)
{
    run.before = m_latest;
    (m_latest != nullptr ? m_latest->after : m_oldest) = &run;
    m_latest = &run;
}

void workerPool::leave(jobInWork& run)
{
    (run.before != nullptr ? run.before->after : m_oldest) = run.after;
    (run.after != nullptr ? run.after->before : m_latest) = run.before;
}

void workerPool::perform(poolLock& lock)
{
    jobQueue::begunJob begun = m_jobs.take();
    jobInWork run{begun.begunNs, nullptr, nullptr};
    enter(run);
    ++m_steps;
    ++m_unpolled;
    if (m_jobs.hasJob() && m_sleeping > m_called && m_abreast + m_called < m_mostAbreast) {
        // a sleeping thread shares the work; no thread is made for it
        enlist();
    }
    if (m_atEase) {
        m_atEase = false;
        m_stirred.notify_one();
    }
    lock.unlock();
    try {
        begun.job->run();
    } catch (const std::exception&) {
        // it ends only this job, which has reported that memory ran out
    }
    lock.lock();
    m_jobs.finish(begun);
    lock.unlock();
    // its destructor may close a connection
    begun.job.reset();
    lock.lock();
    leave(run);
}

/// @param mayWait  for an event; else only what has come is handled
void workerPool::lead(poolLock& lock, bool mayWait)
{
    m_led = true;
    m_unpolled = 0;
    m_eventsDue = false;
    lock.unlock();
    try {
        std::size_t handled = mayWait ? m_context.run_one() : m_context.poll_one();
        for (unsigned more = 1; handled > 0 && more < eventsAtOnce; ++more) {
            handled = m_context.poll_one();
        }
    } catch (const std::exception&) {
        // the handlers have repaired what they can; the context goes on
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

/// Watches while there is something to do, and provides a substitute when no thread has looked for events for a while:
/// all are blocked, or busy.
void workerPool::supervise()
{
    poolLock lock(m_lock);
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
                m_abreast = 0;
                ++m_watch;
                enlist();
            }
            stepsSeen = m_steps;
            looksSeen = m_looks;
            m_stirred.wait_for(lock, m_options.watch, [this] { return m_ended; });
        }
    }
    m_supervised = false;
    m_gone.notify_all();
}

} // namespace kest::service
