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

// sleeping ones that are kept for the next burst
constexpr unsigned spareThreads = 8;
// reserved; only what is used counts
constexpr std::size_t stackBytes = 1024 * 1024;
// beside those in work: one for events, and for the service's own jobs
constexpr unsigned extraThreads = 3;
// begun before somebody looks for events again
constexpr unsigned jobsAtOnce = 4;
// handled before somebody looks for jobs again
constexpr unsigned eventsAtOnce = 32;
// A run counts for no more: one that lost its processor, or waited for a disk, would put its owner far behind all
// others.
constexpr std::int64_t mostChargedNs = 2'000'000;
// Beside the processors': while one thread waits for the disk another has its processor.
constexpr unsigned threadsInWaiting = 1;

/// Those that this process may use.
unsigned processorsHad()
{
    cpu_set_t places;
    CPU_ZERO(&places);
    return sched_getaffinity(0, sizeof places, &places) == 0 ? static_cast<unsigned>(CPU_COUNT(&places)) : 1;
}

} // namespace

Job::Job(std::shared_ptr<Share> share) : m_share(std::move(share))
{
    Share::Waiting maker;
    maker.emplace(0, nullptr);
    m_node = maker.extract(maker.begin());
}

Workers::Workers(asio::io_context& context, Options options)
    : m_context(context), m_options(options),
      m_mostAbreast(options.abreast != 0 ? options.abreast : std::max(1U, processorsHad()) + threadsInWaiting)
{
}

std::int64_t Workers::steadyNs()
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
}

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
    pthread_t thread{};
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
    m_most = most;
    m_mostEach = mostEach;
}

void Workers::submit(std::shared_ptr<Job> job) noexcept
{
    const Lock lock(m_lock);
    Share& share = *job->m_share;
    charge(*job);
    const std::int64_t used = job->m_runs == 0 ? share.m_firstRunsNs : job->m_usedNs;
    auto node = std::move(job->m_node);
    node.key() = std::max(used, share.m_reachedNs);
    node.mapped() = std::move(job);
    share.m_waiting.insert(std::move(node));
    // the thread that submits is awake and looks here next
    queueForTurn(share);
}

/// Counts the time of a job's last run, once that is known: when the job is submitted again, or has been done.
void Workers::charge(Job& job)
{
    if (!job.m_charged) {
        const std::int64_t took = std::min(m_options.clock() - job.m_begunNs, mostChargedNs);
        job.m_usedNs += took;
        job.m_share->m_usedNs += took;
        job.m_share->m_firstRunsNs += job.m_runs == 1 ? took : 0;
        job.m_charged = true;
    }
}

/// Lets an owner take part in the turns, if it is not there yet and may begin a job.
void Workers::queueForTurn(Share& share)
{
    if (&share == m_own.get() || share.m_inTurn || share.m_waiting.empty() || share.m_working >= m_mostEach) {
        return;
    }
    share.m_usedNs = std::max(share.m_usedNs, m_reachedNs);
    share.m_inTurn = true;
    share.m_nextTurn = nullptr;
    (m_lastTurn != nullptr ? m_lastTurn->m_nextTurn : m_firstTurn) = &share;
    m_lastTurn = &share;
}

bool Workers::hasJob() const { return !m_own->m_waiting.empty() || (m_firstTurn != nullptr && m_working < m_most); }

/// Takes the owner out of the turns who has used the least time, and of several the one that has waited the longest.
/// There must be one.
Share& Workers::takeTurn()
{
    // of the one that is taken
    Share* ahead = nullptr;
    for (Share* share = m_firstTurn; share->m_nextTurn != nullptr; share = share->m_nextTurn) {
        const Share* const least = ahead != nullptr ? ahead->m_nextTurn : m_firstTurn;
        ahead = share->m_nextTurn->m_usedNs < least->m_usedNs ? share : ahead;
    }
    Share* const taken = ahead != nullptr ? ahead->m_nextTurn : m_firstTurn;
    (ahead != nullptr ? ahead->m_nextTurn : m_firstTurn) = taken->m_nextTurn;
    m_lastTurn = m_lastTurn == taken ? ahead : m_lastTurn;
    m_reachedNs = std::max(m_reachedNs, taken->m_usedNs);
    taken->m_inTurn = false;
    return *taken;
}

/// Takes the job that has used the least time of the owner whose turn it is; that owner goes to the end of the line.
/// There must be one.
std::shared_ptr<Job> Workers::takeJob()
{
    Share* share = m_own.get();
    if (share->m_waiting.empty()) {
        share = &takeTurn();
        ++share->m_working;
        ++m_working;
    }
    auto node = share->m_waiting.extract(share->m_waiting.begin());
    std::shared_ptr<Job> job = std::move(node.mapped());
    share->m_reachedNs = std::max(share->m_reachedNs, node.key());
    share->m_firstRunsNs = std::max(share->m_firstRunsNs, share->m_reachedNs);
    job->m_usedNs = node.key();
    job->m_begunNs = m_options.clock();
    job->m_charged = false;
    ++job->m_runs;
    job->m_node = std::move(node);
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

/// Whether a worker may go on; if it does not belong to the current watch, it joins while there is room for one more.
bool Workers::joins(std::uint64_t& watch)
{
    if (watch != m_watch && m_abreast < m_mostAbreast) {
        watch = m_watch;
        ++m_abreast;
    }
    return watch == m_watch || m_ended;
}

void Workers::work()
{
    Lock lock(m_lock);
    bool surplus = false;
    std::uint64_t watch = 0;
    while (!surplus && !(m_ended && !hasJob())) {
        const bool joined = joins(watch);
        const bool eventsFirst = !m_led && !m_ended && (m_eventsDue || m_unpolled >= jobsAtOnce);
        if (joined && hasJob() && !eventsFirst) {
            perform(lock);
        } else if (joined && !m_led) {
            lead(lock, !hasJob());
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

void Workers::perform(Lock& lock)
{
    std::shared_ptr<Job> job = takeJob();
    const std::shared_ptr<Share> share = job->m_share;
    ++m_steps;
    ++m_unpolled;
    const std::uint64_t run = job->m_runs;
    if (hasJob() && m_sleeping > m_called && m_abreast + m_called < m_mostAbreast) {
        // shares the work; nobody is made for that
        enlist();
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
    lock.lock();
    // else it has begun again, and was charged then
    if (job->m_runs == run) {
        charge(*job);
    }
    release(*share);
    lock.unlock();
    // its end may be a connection's
    job.reset();
    lock.lock();
}

/// @param mayWait  for an event; else only what has come is handled
void Workers::lead(Lock& lock, bool mayWait)
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

/// Watches while there is something going on, and provides a substitute when nobody has looked for events for a while:
/// those who would are blocked, or busy.
void Workers::supervise()
{
    Lock lock(m_lock);
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
