#include "tools/kestd/jobs.h"

#include <algorithm>
#include <utility>

namespace kest::service
{
namespace
{

/// No run counts for more than this. Otherwise a run that lost its processor, or waited for a disk, would put its owner
/// far behind all others.
constexpr std::int64_t mostChargedNs = 2'000'000;

} // namespace

serviceJob::serviceJob(std::shared_ptr<jobShare> share) : m_share(std::move(share))
{
    jobShare::waitingJobs maker;
    maker.emplace(0, nullptr);
    m_node = maker.extract(maker.begin());
}

void jobQueue::setLimits(unsigned most, unsigned mostEach)
{
    m_most = most;
    m_mostEach = mostEach;
}

void jobQueue::add(std::shared_ptr<serviceJob> job) noexcept
{
    jobShare& share = *job->m_share;
    charge(*job);
    const std::int64_t used = job->m_runs == 0 ? share.m_firstRunsNs : job->m_usedNs;
    auto node = std::move(job->m_node);
    node.key() = std::max(used, share.m_reachedNs);
    node.mapped() = std::move(job);
    share.m_waiting.insert(std::move(node));
    queueForTurn(share);
}

/// Counts the time of a job's last run, once that is known: when the job is submitted again, or has been done.
void jobQueue::charge(serviceJob& job)
{
    if (job.m_charged) {
        return;
    }
    const std::int64_t until = job.m_countedUntilNs ? *job.m_countedUntilNs : m_clock();
    const std::int64_t took = std::min(until - job.m_begunNs, mostChargedNs);
    job.m_usedNs += took;
    job.m_share->m_usedNs += took;
    job.m_share->m_firstRunsNs += job.m_runs == 1 ? took : 0;
    job.m_charged = true;
}

/// Puts an owner in the line for turns, if it is not in it and may begin a job.
void jobQueue::queueForTurn(jobShare& share)
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

bool jobQueue::hasJob() const { return !m_own->m_waiting.empty() || (m_firstTurn != nullptr && m_working < m_most); }

/// Takes the owner that has used the least time out of the turns; of several such, the one that has waited the longest.
/// There must be one.
jobShare& jobQueue::takeTurn()
{
    // of the one that is taken
    jobShare* ahead = nullptr;
    for (jobShare* share = m_firstTurn; share->m_nextTurn != nullptr; share = share->m_nextTurn) {
        const jobShare* const least = ahead != nullptr ? ahead->m_nextTurn : m_firstTurn;
        ahead = share->m_nextTurn->m_usedNs < least->m_usedNs ? share : ahead;
    }
    jobShare* const taken = ahead != nullptr ? ahead->m_nextTurn : m_firstTurn;
    (ahead != nullptr ? ahead->m_nextTurn : m_firstTurn) = taken->m_nextTurn;
    m_lastTurn = m_lastTurn == taken ? ahead : m_lastTurn;
    m_reachedNs = std::max(m_reachedNs, taken->m_usedNs);
    taken->m_inTurn = false;
    return *taken;
}

/// Takes the owner whose turn it is, and of its jobs the one that has used the least time. That owner goes to the end
/// of the line.
jobQueue::begunJob jobQueue::take()
{
    jobShare* share = m_own.get();
    if (share->m_waiting.empty()) {
        share = &takeTurn();
        ++share->m_working;
        ++m_working;
    }
    auto node = share->m_waiting.extract(share->m_waiting.begin());
    std::shared_ptr<serviceJob> job = std::move(node.mapped());
    share->m_reachedNs = std::max(share->m_reachedNs, node.key());
    share->m_firstRunsNs = std::max(share->m_firstRunsNs, share->m_reachedNs);
    job->m_usedNs = node.key();
    const std::int64_t begunNs = m_clock();
    job->m_begunNs = begunNs;
    job->m_countedUntilNs.reset();
    job->m_charged = false;
    ++job->m_runs;
    job->m_node = std::move(node);
    queueForTurn(*share);
    const std::uint64_t run = job->m_runs;
    return {std::move(job), run, begunNs};
}

void jobQueue::finish(const begunJob& begun)
{
    // otherwise it has begun again, and was charged then
    if (begun.job->m_runs == begun.run) {
        charge(*begun.job);
    }
    release(*begun.job->m_share);
}

/// A job of the owner has been done.
void jobQueue::release(jobShare& share)
{
    if (&share == m_own.get()) {
        return;
    }
    --share.m_working;
    --m_working;
    queueForTurn(share);
}

} // namespace kest::service
