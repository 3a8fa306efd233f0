#include "platform/host/iic/writes.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <vector>

#include "platform/host/iic/conversation.h"
#include "platform/host/iic/locks.h"
#include "platform/host/iic/pagewaits.h"

namespace kest::host::iic
{
namespace
{

// what a hub takes after its address
constexpr std::size_t hubBytes = 256;

/// Keeps other writers of pages away from the target for the time of one write.
class pageClaim
{
public:
    explicit pageClaim(const transferSettings& settings)
        : m_locks(settings.offsetLength != 0 && settings.pageSize != 0 ? settings.locks : nullptr),
          m_had(m_locks == nullptr ||
                m_locks->beginWrite(settings.target, std::chrono::milliseconds(patienceMs(settings))))
    {
    }
    pageClaim(const pageClaim&) = delete;
    pageClaim& operator=(const pageClaim&) = delete;
    ~pageClaim()
    {
        if (m_locks != nullptr) {
            m_locks->endWrite();
        }
    }
    /// @return false when another wrote for too long
    [[nodiscard]] bool had() const { return m_had; }

private:
    addressLocks* m_locks;
    bool m_had;
};

/// A write, page by page. The memory that it needs it has before anything is sent.
class writing
{
public:
    writing(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
            transactionHistory& history, transferLimits& learnt);
    transferReport run();

private:
    [[nodiscard]] std::size_t lengthOfPage() const;
    void makePage(std::size_t length);
    bool canBeLess(outcome end, const segment& page, waiting waited);
    transferReport sendPages();
    transferReport sendAll();
    void noteWait();

    bus& m_wires;
    conversation m_talk;
    const transferSettings& m_settings;
    std::span<const std::uint8_t> m_data;
    transferLimits& m_learnt; ///< what the adapter is known to take
    transferLimits m_takes; ///< what is tried
    transferLimits m_limits; ///< of the kind of adapter
    std::vector<std::uint8_t> m_page; ///< the message under way: an offset and data
    std::uint64_t m_clockHz;
    std::size_t m_sent = 0; ///< bytes acknowledged
    std::size_t m_latest = 0; ///< where the latest part of a page began
    pageWaitCount m_waits;
};

writing::writing(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
                 transactionHistory& history, transferLimits& learnt)
    : m_wires(wires), m_talk(wires, settings, history), m_settings(settings), m_data(data), m_learnt(learnt),
      m_takes(learnt), m_limits(wires.limits()), m_clockHz(wires.clockHz(settings.pace))
{
    m_page.reserve(std::min(m_limits.writeBytes, settings.offsetLength + data.size()));
}

/// Data bytes of the next message: up to the end of its page.
std::size_t writing::lengthOfPage() const
{
    const std::size_t left = m_data.size() - m_sent;
    if (m_settings.offsetLength == 0) {
        return left;
    }
    const std::size_t takes = std::max(m_takes.writeBytes, leastBytes(m_settings, direction::write));
    const std::size_t most = throughHub(m_settings) ? std::min(takes, hubBytes) : takes;
    std::size_t length = std::min(left, most - m_settings.offsetLength);
    if (m_takes.wireNs != 0) {
        length = std::min(length, bytesInTime(m_takes.wireNs, m_clockHz, m_settings, direction::write, 0));
    }
    if (m_settings.pageSize == 0) {
        return length;
    }
    const std::size_t inPage = (m_settings.position + m_sent) % m_settings.pageSize;
    return std::min(length, m_settings.pageSize - inPage);
}

/// Makes the next message: an offset and data.
void writing::makePage(std::size_t length)
{
    offsetBytes offset(positionPlus(m_settings, m_sent), m_settings.offsetLength);
    const auto data = m_data.subspan(m_sent, length);
    m_page.assign(offset.span().begin(), offset.span().end());
    m_page.insert(m_page.end(), data.begin(), data.end());
}

/// Whether a page that was not sent as a whole can be sent in smaller parts, and may be. The same bytes go to the same
/// places, however many of them a part that the adapter gave up has left there.
/// @param waited  for what. A time-out may be the target's silence then, unless it acknowledges its address
bool writing::canBeLess(outcome end, const segment& page, waiting waited)
{
    if (end == outcome::timedOut) {
        return !m_talk.expired() && (waited == waiting::start || m_talk.addressAnswers()) &&
               takeShorter(m_takes, m_settings, {&page, 1}, m_talk.lastedNs(), m_clockHz);
    }
    return end == outcome::tooLong && takeLess(m_takes, m_settings, {&page, 1});
}

/// Counts how the target waited after the latest page. Without a page size each message is a page.
void writing::noteWait()
{
    const std::size_t place = m_settings.position + m_latest;
    m_waits.note(static_cast<std::uint32_t>(m_settings.pageSize == 0 ? place : place / m_settings.pageSize),
                 m_talk.refusals());
}

/// A page is certain when its target has taken the next one in: its write cycle is over then.
transferReport writing::sendPages()
{
    std::size_t certain = 0;
    waiting what = waiting::start;
    while (m_sent < m_data.size()) {
        const std::size_t length = lengthOfPage();
        makePage(length);
        const segment page{.address = m_settings.target, .way = direction::write, .bytes = m_page};
        const outcome end = m_talk.sendWhenReady({&page, 1}, what).end;
        if (m_sent != 0) {
            noteWait();
        }
        if (canBeLess(end, page, what)) {
            // the target may be writing what it took of a page that was given up
            what = end == outcome::timedOut ? waiting::cycleEnd : what;
            continue;
        }
        if ((isSilence(end) || end == outcome::timedOut) && what == waiting::cycleEnd) {
            // The page before is being written. It counts unless it has had all its time and is still not done.
            return {.moved = m_talk.expired() ? m_sent : certain, .error = ETIME, .silence = silenceBusy};
        }
        if (end != outcome::done) {
            const int error = m_talk.errorOf(end, length);
            return {.moved = m_sent,
                    .error = error,
                    .silence = error == ENXIO ? silenceAbsent : silenceNone,
                    .lacks = lackOf(end)};
        }
        m_learnt = m_takes;
        what = waiting::cycleEnd;
        certain = m_sent;
        m_latest = m_sent;
        m_sent += length;
        if (m_sent < m_data.size() && m_talk.expired()) {
            return {.moved = m_sent, .error = ETIME};
        }
    }
    return {.moved = certain};
}

transferReport writing::run()
{
    if (const transferReport refused = checkTransfer(m_settings, m_limits, direction::write, m_data.size());
        refused.error != 0) {
        return refused;
    }
    const pageClaim claim(m_settings);
    if (!claim.had()) {
        return {.error = ETIME, .silence = silenceOtherWriter};
    }
    m_talk.restart();
    const transferReport sent = sendAll();
    addPageWaits(m_wires.identity(), m_settings.target, m_waits.sums());
    return sent;
}

/// Sends the pages and waits for the end of the last one's write cycle.
transferReport writing::sendAll()
{
    const transferReport sent = sendPages();
    if (sent.error != 0) {
        return sent;
    }
    const bool hasCycle = m_settings.offsetLength != 0 || m_settings.writeCycleMs != 0;
    const outcome end = hasCycle ? m_talk.awaitCycleEnd() : outcome::done;
    if (hasCycle) {
        noteWait();
    }
    if (isSilence(end) || end == outcome::timedOut) {
        return {.moved = sent.moved, .error = ETIME, .silence = silenceBusy};
    }
    if (end != outcome::done) {
        return {.moved = sent.moved, .error = errnoOf(end), .lacks = lackOf(end)};
    }
    return {.moved = m_data.size()};
}

} // namespace

transferReport writeDevice(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
                           transactionHistory& history, transferLimits& learnt)
{
    return writing(wires, settings, data, history, learnt).run();
}

} // namespace kest::host::iic
