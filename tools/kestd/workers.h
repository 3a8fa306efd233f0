/// The threads that do the service's work.
#pragma once

#include <asio/io_context.hpp>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

namespace kest::service
{

/// Something to do that may take long.
class Job
{
public:
    Job()                      = default;
    Job(const Job&)            = delete;
    Job& operator=(const Job&) = delete;
    virtual ~Job()             = default;
    virtual void run()         = 0;
};

/// A crew of threads. One of them at a time waits for events, and then does what they call for itself: a request that is served at once
/// costs no switch between threads. The others sleep until there are several jobs, or until the thread that would have to wait for
/// events has been in a job for a while; the crew grows when none is left. So a slow device holds up nobody but those who asked for it.
///
/// The event handlers themselves must not block: they submit jobs.
class Workers
{
public:
    /// @param most  as many threads at the same time, at least 2
    Workers(asio::io_context& context, unsigned most) : m_context(context), m_most(most) {}
    Workers(const Workers&)            = delete;
    Workers& operator=(const Workers&) = delete;
    ~Workers() { join(); }

    /// @return false when not even the first threads could be had
    bool start();
    /// Waits until the context has run out of work and all threads have ended. A job, and whoever submits one, keeps work in the
    /// context until it is done.
    void join();

    /// Has a job done, by an event handler's thread or from within another job.
    void submit(std::shared_ptr<Job> job);

private:
    using Lock = std::unique_lock<std::mutex>;

    static void* workMain(void* workers);
    static void* superviseMain(void* workers);

    bool spawn(void* (*main)(void*));
    void work();
    void lead(Lock& lock);
    void perform(Lock& lock);
    void supervise();
    void enlist();

    asio::io_context&                m_context;
    unsigned                         m_most;
    std::mutex                       m_lock;
    std::condition_variable          m_wanted;  ///< a sleeping worker is
    std::condition_variable          m_stirred; ///< the supervisor is
    std::condition_variable          m_gone;
    std::deque<std::shared_ptr<Job>> m_jobs;
    unsigned                         m_threads    = 0; ///< workers
    unsigned                         m_sleeping   = 0;
    unsigned                         m_called     = 0;     ///< of the sleeping, on their way up
    bool                             m_led        = false; ///< one waits for events
    bool                             m_ended      = false;
    bool                             m_supervised = false;
    bool                             m_atEase     = false; ///< the supervisor sleeps until it is stirred
    std::uint64_t                    m_steps      = 0;     ///< taken by anybody; standing still means blocked
};

} // namespace kest::service
