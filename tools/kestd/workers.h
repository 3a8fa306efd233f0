/// The threads that do the service's work.
#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace kest::service
{

class Job;

/// The jobs of one owner: all connections of a user, for instance. The owner's job begins next who has used the least
/// time, whatever each of them has waiting; with equal times they take turns. Of one owner's jobs only so many are in
/// work at the same time.
///
/// Of an owner's jobs the one begins next that has used the least time. Each counts from where the owner's jobs have
/// got to, so time in which it asked for nothing gives it no advantage later. All first runs together count as one job:
/// a new connection for each request gains nothing.
class Share
{
private:
    friend class Job;
    // which reads and changes all of it under its lock
    friend class Workers;
    /// By the time used. Each job brings its own node along: submitting it takes no memory.
    using Waiting = std::multimap<std::int64_t, std::shared_ptr<Job>>;
    Waiting m_waiting;
    std::int64_t m_reachedNs = 0; ///< time used by the job that began last
    std::int64_t m_firstRunsNs = 0; ///< time used by first runs
    std::int64_t m_usedNs = 0; ///< by all its jobs
    unsigned m_working = 0;
    Share* m_nextTurn = nullptr; ///< of those that wait for their turn
    bool m_inTurn = false;
};

/// Something to do that may take long, once or again and again. It waits in its owner's list; submitting can't fail.
class Job
{
public:
    explicit Job(std::shared_ptr<Share> share);
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;
    virtual ~Job() = default;
    /// What it throws ends this job and nothing else. It may submit itself again, as the last thing it does.
    virtual void run() = 0;

private:
    friend class Workers;
    std::shared_ptr<Share> m_share;
    Share::Waiting::node_type m_node; ///< empty while the job waits
    std::int64_t m_usedNs = 0;
    std::int64_t m_begunNs = 0;
    std::uint64_t m_runs = 0;
    bool m_charged = true; ///< for its last run
};

/// A crew of threads. One of them at a time waits for events, and then does what they call for itself: a request that
/// is served at once costs no switch between threads. One more of them is at work than there are processors: it goes on
/// while another waits for the disk. With many more, those that were begun and then wait for a processor would hold up
/// short jobs for many milliseconds. The others sleep until there are several jobs, or until nobody has looked for
/// events for a while: then all who are in a job are taken for blocked and no longer count, and the crew grows when
/// none is left. So a slow device holds up nobody but those who asked for it.
///
/// Owners of jobs take turns, and while there are always jobs, events still come in between: who has much to do holds
/// up nobody else.
///
/// The event handlers themselves must not block: they submit jobs.
class Workers
{
public:
    struct Options {
        std::int64_t (*clock)() = steadyNs; ///< steady, in nanoseconds
        unsigned abreast = 0; ///< threads at work; 0: one more than the processors this process may use
        std::chrono::milliseconds watch{
            1}; ///< so long nobody may look for events before those in jobs are taken for blocked
    };

    explicit Workers(asio::io_context& context) : Workers(context, Options()) {}
    Workers(asio::io_context& context, Options options);
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    ~Workers() { join(); }

    /// @param most      as many jobs are in work at the same time, at least 1; there are a few threads more
    /// @param mostEach  as many of one owner
    void setLimits(unsigned most, unsigned mostEach);

    /// @return false when not even the first threads could be had
    bool start();
    /// Waits until the context has run out of work and all threads have ended. A job, and whoever submits one, keeps
    /// work in the context until it is done.
    void join();

    /// Has a job done, by an event handler's thread or from within another job.
    void submit(std::shared_ptr<Job> job) noexcept;

    /// The owner of the service's own jobs, to which the limits don't apply.
    [[nodiscard]] const std::shared_ptr<Share>& own() const { return m_own; }

    static std::int64_t steadyNs();

private:
    using Lock = std::unique_lock<std::mutex>;

    static void* workMain(void* workers);
    static void* superviseMain(void* workers);

    bool spawn(void* (*main)(void*));
    void work();
    void lead(Lock& lock, bool mayWait);
    void perform(Lock& lock);
    void supervise();
    void enlist();
    bool joins(std::uint64_t& watch);

    [[nodiscard]] bool hasJob() const;
    std::shared_ptr<Job> takeJob();
    void queueForTurn(Share& share);
    Share& takeTurn();
    void charge(Job& job);
    void release(Share& share);

    asio::io_context& m_context;
    const Options m_options;
    const unsigned m_mostAbreast;
    const std::shared_ptr<Share> m_own = std::make_shared<Share>();
    std::mutex m_lock;
    std::condition_variable m_wanted; ///< a sleeping worker is
    std::condition_variable m_stirred; ///< the supervisor is
    std::condition_variable m_gone;
    unsigned m_most = 2; ///< jobs in work, but for the service's own
    unsigned m_mostEach = 1;
    unsigned m_working = 0; ///< jobs, but for the service's own
    Share* m_firstTurn = nullptr; ///< owners with jobs that may begin; kept alive by those jobs
    Share* m_lastTurn = nullptr;
    std::int64_t m_reachedNs = 0; ///< time used by the owner whose job began last
    unsigned m_unpolled = 0; ///< jobs begun since somebody last looked for events
    unsigned m_threads = 0; ///< workers
    unsigned m_abreast = 0; ///< workers of the current watch, which take jobs and look for events
    std::uint64_t m_watch = 1; ///< a new one begins when those of the old are blocked, or busy
    unsigned m_sleeping = 0;
    unsigned m_called = 0; ///< of the sleeping, on their way up
    bool m_led = false; ///< one waits for events
    bool m_ended = false;
    bool m_supervised = false;
    bool m_atEase = false; ///< the supervisor sleeps until it is stirred
    bool m_eventsDue = false; ///< nobody has looked for events for a while
    std::uint64_t m_steps = 0; ///< taken by anybody; standing still means blocked
    std::uint64_t m_looks = 0; ///< for events
};

} // namespace kest::service
