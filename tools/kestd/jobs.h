/// The jobs of the service, and their order.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>

namespace kest::service
{

class serviceJob;

/// The jobs of one owner: all connections of a user, for instance. The owner that has used the least time begins a job
/// next, however many jobs each owner has waiting; owners with equal times take turns. Only a limited number of one
/// owner's jobs are in work at the same time.
///
/// Within an owner, the job that has used the least time begins next. A job that comes back after a pause starts at the
/// time that the owner's other jobs have reached, so it has no advantage. All first runs together count as one job:
/// opening a connection for each request gains nothing.
class jobShare
{
private:
    friend class serviceJob;
    friend class jobQueue;
    /// By the time used. Each job has its own map node, so submitting it takes no memory.
    using waitingJobs = std::multimap<std::int64_t, std::shared_ptr<serviceJob>>;
    waitingJobs m_waiting;
    std::int64_t m_reachedNs = 0; ///< time used by the job that began last
    std::int64_t m_firstRunsNs = 0; ///< time used by first runs
    std::int64_t m_usedNs = 0; ///< by all its jobs
    unsigned m_working = 0;
    jobShare* m_nextTurn = nullptr; ///< the next in line
    bool m_inTurn = false;
};

/// Something to do that may take long, once or again and again. It waits in its owner's list; submitting can't fail.
class serviceJob
{
public:
    explicit serviceJob(std::shared_ptr<jobShare> share);
    serviceJob(const serviceJob&) = delete;
    serviceJob& operator=(const serviceJob&) = delete;
    virtual ~serviceJob() = default;
    /// An exception ends only this job. The job may submit itself again, as the last thing it does.
    virtual void run() = 0;

protected:
    /// Ends the time that counts of the current run. For the job itself, before it does what wakes others: they may take
    /// its processor.
    /// @param nowNs  by the clock of the queue
    void countUntil(std::int64_t nowNs) { m_countedUntilNs = nowNs; }

private:
    friend class jobQueue;
    std::shared_ptr<jobShare> m_share;
    jobShare::waitingJobs::node_type m_node; ///< empty while the job waits
    std::int64_t m_usedNs = 0;
    std::int64_t m_begunNs = 0;
    std::optional<std::int64_t> m_countedUntilNs; ///< of its last run; none: until it ended
    std::uint64_t m_runs = 0;
    bool m_charged = true; ///< for its last run
};

/// The jobs that wait, owner by owner. Owners take turns. Not for several threads at once.
class jobQueue
{
public:
    /// @param clock  steady, in nanoseconds
    explicit jobQueue(std::int64_t (*clock)()) : m_clock(clock) {}
    jobQueue(const jobQueue&) = delete;
    jobQueue& operator=(const jobQueue&) = delete;

    /// @param most  jobs in work at the same time, at least 1
    /// @param mostEach  jobs of one owner
    void setLimits(unsigned most, unsigned mostEach);
    [[nodiscard]] unsigned most() const { return m_most; }

    /// The owner of the service's own jobs. They come first, and the limits don't apply to them.
    [[nodiscard]] const std::shared_ptr<jobShare>& own() const { return m_own; }

    void add(std::shared_ptr<serviceJob> job) noexcept;

    /// Whether there is a job that may begin.
    [[nodiscard]] bool hasJob() const;

    struct begunJob {
        std::shared_ptr<serviceJob> job;
        std::uint64_t run; ///< which of the job's runs it is
        std::int64_t begunNs; ///< by the clock of the queue
    };
    /// Takes the job that is next; its run begins. There must be one.
    [[nodiscard]] begunJob take();
    /// The run has ended. The job may wait again, or have begun again, by now.
    void finish(const begunJob& begun);

private:
    void queueForTurn(jobShare& share);
    jobShare& takeTurn();
    void charge(serviceJob& job);
    void release(jobShare& share);

    std::int64_t (*const m_clock)();
    const std::shared_ptr<jobShare> m_own = std::make_shared<jobShare>();
    unsigned m_most = 2; ///< jobs in work other than the service's own
    unsigned m_mostEach = 1;
    unsigned m_working = 0; ///< jobs other than the service's own
    jobShare* m_firstTurn = nullptr; ///< owners with jobs that may begin; kept alive by those jobs
    jobShare* m_lastTurn = nullptr;
    std::int64_t m_reachedNs = 0; ///< time used by the owner whose job began last
};

} // namespace kest::service
