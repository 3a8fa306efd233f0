/// The threads that do the service's work.
#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "tools/kestd/jobs.h"

namespace kest::service
{

/// A crew of threads. One thread at a time waits for events and handles them itself: a request that is served at once
/// costs no switch between threads. One thread more than there are processors is at work, and runs while another waits
/// for the disk. With many more threads, jobs that were begun and then wait for a processor would hold up short ones
/// for many milliseconds. The other threads sleep until there are several jobs, or until no thread has looked for
/// events for a while. Then all threads in a job count as blocked, and the crew grows when none is left. So a slow
/// device holds up only the clients that use it.
///
/// Owners of jobs take turns, and events are handled between jobs even when there are always jobs: an owner with much
/// to do holds up nobody else.
///
/// The event handlers themselves must not block: they submit jobs.
class workerPool
{
public:
    struct tuning {
        std::int64_t (*clock)() = steadyNs; ///< steady, in nanoseconds
        unsigned abreast = 0; ///< threads at work; 0: one more than the processors this process may use
        /// The longest time without a look for events before threads in jobs count as blocked.
        std::chrono::milliseconds watch{1};
    };

    explicit workerPool(asio::io_context& context) : workerPool(context, tuning()) {}
    workerPool(asio::io_context& context, tuning options);
    workerPool(const workerPool&) = delete;
    workerPool& operator=(const workerPool&) = delete;
    ~workerPool() { join(); }

    /// @param most  jobs in work at the same time, at least 1; there are a few threads more
    /// @param mostEach  jobs of one owner
    void setLimits(unsigned most, unsigned mostEach);

    /// @return false when not even the first threads could be made
    bool start();
    /// Waits until the context has run out of work and all threads have ended. A job keeps work in the context until it
    /// is done, and so does the code that submits it.
    void join();

    /// Hands over a job. Called by an event handler, or at the end of another job: when all other threads sleep or wait
    /// for events, the thread that submits a job is the one that takes it, and does so when it is free.
    void submit(std::shared_ptr<serviceJob> job) noexcept;

    /// The owner of the service's own jobs, to which the limits don't apply.
    [[nodiscard]] const std::shared_ptr<jobShare>& own() const { return m_jobs.own(); }

    /// @return for how long the oldest of the jobs in work has been so; 0 when there is none
    [[nodiscard]] std::chrono::nanoseconds longestRun() const;

    static std::int64_t steadyNs();

private:
    /// A job in work. It lies on its thread's stack.
    struct jobInWork {
        std::int64_t begunNs;
        jobInWork* before;
        jobInWork* after;
    };
    using poolLock = std::unique_lock<std::mutex>;

    static void* workMain(void* workers);
    static void* superviseMain(void* workers);

    bool spawn(void* (*main)(void*));
    void work();
    void lead(poolLock& lock, bool mayWait);
    void perform(poolLock& lock);
    void supervise();
    void enlist();
    bool joins(std::uint64_t& watch);
    void enter(jobInWork& run);
    void leave(jobInWork& run);

    asio::io_context& m_context;
    const tuning m_options;
    const unsigned m_mostAbreast;
    mutable std::mutex m_lock; ///< of all that follows
    jobQueue m_jobs;
    jobInWork* m_oldest = nullptr; ///< of the jobs in work
    jobInWork* m_latest = nullptr;
    std::condition_variable m_wanted; ///< wakes a sleeping worker
    std::condition_variable m_stirred; ///< wakes the supervisor
    std::condition_variable m_gone;
    unsigned m_unpolled = 0; ///< jobs begun since a thread last looked for events
    unsigned m_threads = 0; ///< workers
    unsigned m_abreast = 0; ///< workers of the current watch, which take jobs and look for events
    std::uint64_t m_watch = 1; ///< a new one begins when those of the old are blocked, or busy
    unsigned m_sleeping = 0;
    unsigned m_called = 0; ///< of the sleeping: woken, and not yet awake
    bool m_led = false; ///< a thread waits for events
    bool m_ended = false;
    bool m_supervised = false;
    bool m_atEase = false; ///< the supervisor sleeps until it is stirred
    bool m_eventsDue = false; ///< no thread has looked for events for a while
    std::uint64_t m_steps = 0; ///< by any thread; when they stand still, all are blocked
    std::uint64_t m_looks = 0; ///< for events
};

} // namespace kest::service
