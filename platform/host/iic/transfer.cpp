#include "platform/host/iic/transfer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <limits>
#include <new>
#include <vector>

#include "platform/host/iic/locks.h"

namespace kest::host::iic
{
namespace
{

constexpr std::uint64_t nsPerMs = 1'000'000;
constexpr std::uint64_t msPerSecond = 1000;
// a device may be waited for that long whatever its block promises
constexpr std::uint64_t shortestCycleMs = 50;
// of what the block promises
constexpr std::uint64_t cyclesToWait = 4;
// by far more than the pages of the largest chip take
constexpr std::uint32_t longestForeignWriteMs = 10'000;
// for a target that does not answer at the start
constexpr std::uint64_t longestStartMs = 50;
// what a hub takes after its address
constexpr std::size_t hubBytes = 256;
constexpr std::size_t mostOffsetBytes = 4;
constexpr std::uint64_t closelyAskedNs = 10 * nsPerMs;
constexpr std::uint64_t shortestBusyPauseNs =
    // before a lost arbitration is tried again; doubles each time
    nsPerMs / 20;
constexpr std::uint64_t longestBusyPauseNs = 10 * nsPerMs;
// transactions refused although the address alone is answered
constexpr unsigned int doubtfulSends = 3;
// Controllers' drivers give up a transfer after a time of their own, often 1 s, and the bus is held meanwhile.
constexpr std::uint64_t longestTransactionMs = 250;
// a repeated one, too
constexpr std::uint64_t bitsOfStart = 1;
constexpr std::uint64_t bitsOfStop = 1;
// with its acknowledge
constexpr std::uint64_t bitsOfByte = 9;

bool throughHub(const transferSettings& settings) { return settings.offsetLength >= 3; }

/// The part of a position that counts up: one byte of offset for lengths 1 and 3, two for 2 and 4. The rest names port
/// and device of a hub.
std::uint32_t countingMask(const transferSettings& settings)
{
    return settings.offsetLength % 2 == 1 ? 0xFFU : 0xFFFFU;
}

std::uint32_t positionPlus(const transferSettings& settings, std::size_t moved)
{
    const std::uint32_t mask = countingMask(settings);
    return (settings.position & ~mask) | static_cast<std::uint32_t>((settings.position + moved) & mask);
}

bool positionFits(const transferSettings& settings)
{
    return settings.offsetLength == 0 || throughHub(settings) || settings.position <= countingMask(settings);
}

/// The bytes of an offset, most significant first.
struct offsetBytes {
    offsetBytes(std::uint32_t position, std::size_t count) : length(count)
    {
        for (std::size_t index = 0; index < count; ++index) {
            bytes.at(index) = static_cast<std::uint8_t>(position >> (8 * (count - 1 - index)));
        }
    }
    std::span<std::uint8_t> span() { return std::span(bytes).first(length); }

    std::array<std::uint8_t, mostOffsetBytes> bytes{};
    std::size_t length;
};

bool isSilence(outcome end) { return end == outcome::addressNotAcknowledged || end == outcome::notAcknowledged; }

/// How long another's write of pages is waited for.
std::uint32_t patienceMs(const transferSettings& settings)
{
    return settings.pace.timeoutMs != 0 ? settings.pace.timeoutMs : longestForeignWriteMs;
}

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

/// One transfer: its clock, its target, and the questions that a busy target is asked.
class conversation
{
public:
    conversation(bus& wires, const transferSettings& settings, transactionHistory& history)
        : m_wires(wires), m_settings(settings), m_history(history), m_startedNs(wires.nowNs()), m_nowNs(m_startedNs)
    {
    }

    /// Sends a transaction. While its target does not answer it is asked again, for `windowNs`.
    transferResult sendWhenReady(std::span<const segment> segments, std::uint64_t windowNs);
    /// Asks the target alone until it answers, for `windowNs`. A bus may have no such question: notSupported.
    outcome askUntilAnswered(std::uint64_t windowNs);
    /// Waits for the end of a page's write cycle, all the time that it may take where the target can't be asked.
    outcome awaitCycleEnd();

    [[nodiscard]] std::uint64_t startWindowNs() const
    {
        return std::min<std::uint64_t>(longestStartMs, m_settings.busyWaitMs) * nsPerMs;
    }
    [[nodiscard]] std::uint64_t cycleWindowNs() const
    {
        return std::max<std::uint64_t>(shortestCycleMs, cyclesToWait * m_settings.writeCycleMs) * nsPerMs;
    }
    [[nodiscard]] bool expired() const { return timeLeftNs() == 0; }
    /// The time that passed until now was another's.
    void restart() { m_startedNs = m_nowNs = m_wires.nowNs(); }
    /// What a transaction's end means at the start of a transfer.
    [[nodiscard]] int startError(outcome end) const { return isSilence(end) && expired() ? ETIME : errnoOf(end); }

private:
    template <typename Act>
    outcome withinBusyWait(Act act);
    transferResult send(std::span<const segment> segments);
    template <typename Act>
    transferResult attempt(Act act);
    outcome ask();
    bool opensAgain(std::uint64_t& startedNs, std::uint64_t& windowNs);
    void noteOtherWriter();
    outcome silenceOr(outcome end) const;
    void pauseSince(std::uint64_t startedNs, std::uint64_t windowNs);
    /// Of the transfer's time-out.
    [[nodiscard]] std::uint64_t timeLeftNs() const;
    void pause(std::uint64_t nanoseconds);

    bus& m_wires;
    const transferSettings& m_settings;
    transactionHistory& m_history;
    std::uint64_t m_startedNs;
    std::uint64_t m_nowNs; ///< as of the last transaction or pause
    bool m_busyWithAnother = false;
};

std::uint64_t conversation::timeLeftNs() const
{
    const std::uint64_t timeoutNs = m_settings.pace.timeoutMs * nsPerMs;
    const std::uint64_t passedNs = m_nowNs - m_startedNs;
    return timeoutNs == 0 ? std::numeric_limits<std::uint64_t>::max() : timeoutNs - std::min(passedNs, timeoutNs);
}

/// Repeats what lost the arbitration or met a busy bus, for as long as a busy bus is waited for.
template <typename Act>
outcome conversation::withinBusyWait(Act act)
{
    const std::uint64_t startedNs = m_nowNs;
    const std::uint64_t windowNs = m_settings.busyWaitMs * nsPerMs;
    outcome end = act();
    std::uint64_t pauseNs = shortestBusyPauseNs;
    while ((end == outcome::arbitrationLost || end == outcome::busBusy || end == outcome::interrupted) &&
           m_nowNs - startedNs < windowNs && !expired()) {
        pause(pauseNs);
        pauseNs = std::min(2 * pauseNs, longestBusyPauseNs);
        end = act();
    }
    return end;
}

/// Want of memory in the middle of a transfer is its end like any other: the caller gets the count of what was moved
/// before.
template <typename Act>
transferResult conversation::attempt(Act act)
{
    try {
        return act();
    } catch (const std::bad_alloc&) {
        return {.end = outcome::noMemory, .nowNs = m_wires.nowNs()};
    }
}

transferResult conversation::send(std::span<const segment> segments)
{
    transferResult result;
    withinBusyWait([&] {
        result = attempt([&] { return m_wires.transfer(segments, m_settings.pace); });
        m_nowNs = result.nowNs;
        m_history.note(m_nowNs, segments, result.end);
        return result.end;
    });
    return result;
}

/// Between two questions to a target that has been silent since `startedNs`. A page's write cycle is asked for closely,
/// since the next page waits for its end; a target that is silent for longer is asked ever less often.
void conversation::pauseSince(std::uint64_t startedNs, std::uint64_t windowNs)
{
    const std::uint64_t silentNs = m_nowNs - startedNs;
    const std::uint64_t rareNs = silentNs > closelyAskedNs ? silentNs / 16 : 0;
    pause(std::min(m_wires.questionPauseNs() + rareNs, windowNs - std::min(silentNs, windowNs)));
}

void conversation::pause(std::uint64_t nanoseconds)
{
    if (nanoseconds != 0) {
        m_wires.pause(nanoseconds);
        m_nowNs = m_wires.nowNs();
    }
}

outcome conversation::ask()
{
    const probeMethod method = throughHub(m_settings) ? probeMethod::addressOnly : probeMethod::safe;
    const segment alone{.address = m_settings.target, .way = direction::write, .bytes = {}};
    return withinBusyWait([&] {
        const transferResult result =
            attempt([&] { return m_wires.probe(m_settings.target, method, m_settings.pace); });
        m_nowNs = result.nowNs;
        m_history.note(m_nowNs, {&alone, 1}, result.end);
        return result.end;
    });
}

/// At the end of a window for an answer. While another handle writes pages the target is silent for a good reason: it
/// gets a window more, and one after that. It gets one also when that handle was done only after the last question.
/// Without a time-out of the transfer's own there is an end to it, too.
bool conversation::opensAgain(std::uint64_t& startedNs, std::uint64_t& windowNs)
{
    const bool wasBusy = m_busyWithAnother;
    noteOtherWriter();
    startedNs = m_nowNs;
    windowNs = std::max(windowNs, longestStartMs * nsPerMs);
    return (m_busyWithAnother || wasBusy) && m_nowNs - m_startedNs < patienceMs(m_settings) * nsPerMs;
}

void conversation::noteOtherWriter()
{
    m_busyWithAnother = m_settings.locks != nullptr && m_settings.locks->isWrittenByAnother(m_settings.target);
}

/// A target that is silent because of another handle's pages is not absent.
outcome conversation::silenceOr(outcome end) const
{
    return isSilence(end) && m_busyWithAnother ? outcome::timedOut : end;
}

transferResult conversation::sendWhenReady(std::span<const segment> segments, std::uint64_t windowNs)
{
    std::uint64_t startedNs = m_nowNs;
    const bool writes = segments.front().way == direction::write;
    // sent although the target answers
    unsigned int refused = 1;
    transferResult result = send(segments);
    if (isSilence(result.end)) {
        noteOtherWriter();
    }
    while (isSilence(result.end) && result.segment == 0) {
        // Where an adapter does not tell a refused address from refused data, the address alone does: it must not be
        // answered. A plain read has no data to refuse, and a question that reads a byte would take that byte from it:
        // it is sent again itself.
        const bool asks = writes && result.end == outcome::notAcknowledged;
        const outcome answer = asks ? ask() : outcome::notSupported;
        if (answer == outcome::done && ++refused > doubtfulSends) {
            result.end = outcome::dataNotAcknowledged;
        } else if (expired()) {
            break;
        } else if (answer == outcome::done) {
            // also when the window has passed meanwhile
            result = send(segments);
        } else if (answer != outcome::notSupported && !isSilence(answer)) {
            result.end = answer;
        } else if (m_nowNs - startedNs >= windowNs && !opensAgain(startedNs, windowNs)) {
            break;
        } else {
            pauseSince(startedNs, windowNs);
            result = answer == outcome::notSupported ? send(segments) : result;
        }
    }
    result.end = silenceOr(result.end);
    return result;
}

outcome conversation::askUntilAnswered(std::uint64_t windowNs)
{
    std::uint64_t startedNs = m_nowNs;
    outcome end = ask();
    if (isSilence(end)) {
        noteOtherWriter();
    }
    while (isSilence(end) && !expired() && (m_nowNs - startedNs < windowNs || opensAgain(startedNs, windowNs))) {
        pauseSince(startedNs, windowNs);
        end = ask();
    }
    return silenceOr(end);
}

outcome conversation::awaitCycleEnd()
{
    const std::uint64_t windowNs = cycleWindowNs();
    outcome end = askUntilAnswered(windowNs);
    if (end == outcome::notSupported) {
        const std::uint64_t leftNs = timeLeftNs();
        pause(std::min(windowNs, leftNs));
        end = leftNs < windowNs ? outcome::timedOut : outcome::done;
    }
    return end;
}

/// What a message holds at least: a byte of data behind an offset, or behind a hub's status.
/// A plain message is never cut.
std::size_t leastBytes(const transferSettings& settings, direction way)
{
    if (settings.offsetLength == 0) {
        return std::numeric_limits<std::size_t>::max();
    }
    return way == direction::write ? settings.offsetLength + std::size_t{1} : throughHub(settings) ? 2 : 1;
}

/// Cuts down what is sent at once, after an adapter refused `refused` as too long.
/// @return false when there is nothing left to cut
bool takeLess(transferLimits& takes, const transferSettings& settings, std::span<const segment> refused)
{
    const segment& last = refused.back();
    const std::size_t least = leastBytes(settings, last.way);
    if (refused.size() > 2) {
        takes.segments = 2;
        return true;
    }
    if (last.bytes.size() <= least) {
        return false;
    }
    std::size_t& most = last.way == direction::read ? takes.readBytes : takes.writeBytes;
    most = std::max(last.bytes.size() / 2, least);
    return true;
}

/// Whether a transfer can be made as asked, before anything is sent. @return 0, EINVAL or ENOSYS
int checkTransfer(const transferSettings& settings, const transferLimits& limits, bool read, std::size_t length)
{
    // into one message
    const std::size_t fits = read ? limits.readBytes : limits.writeBytes;
    const std::uint32_t start = settings.position & countingMask(settings);
    if (settings.offsetLength == 0) {
        return length > fits ? EINVAL : 0;
    }
    if (!positionFits(settings) || (!read && length > std::size_t{countingMask(settings)} + 1 - start)) {
        return EINVAL;
    }
    return limits.writeBytes < settings.offsetLength + (read ? 0U : 1U) ? ENOSYS : 0;
}

/// What the end of a transaction means where no page before it is in doubt.
/// @param length  of its data. One plain byte that is refused is not too long.
int errorOf(const conversation& talk, const transferSettings& settings, outcome end, std::size_t length)
{
    const bool tooLong = end == outcome::tooLong && settings.offsetLength == 0 && length > 1;
    return tooLong ? EINVAL : talk.startError(end);
}

/// Data bytes that a read transaction may bring within its wire time, with messages of `messageBytes`.
std::size_t bytesInTime(std::uint64_t clockHz, const transferSettings& settings, std::size_t messageBytes)
{
    const std::uint64_t mostBits = clockHz * longestTransactionMs / msPerSecond;
    const std::uint64_t offsetBits = bitsOfStart + bitsOfByte * (1U + settings.offsetLength) + bitsOfStop;
    // of each read message: repeated START and address
    const std::uint64_t headBits = bitsOfStart + bitsOfByte;
    const std::uint64_t messageBits = headBits + bitsOfByte * messageBytes;
    const std::uint64_t dataBits = mostBits - std::min(mostBits, offsetBits);
    const std::uint64_t lastBits = dataBits % messageBits;
    const std::uint64_t bytes =
        dataBits / messageBits * messageBytes + (lastBits - std::min(lastBits, headBits)) / bitsOfByte;
    return std::max<std::size_t>(static_cast<std::size_t>(bytes), leastBytes(settings, direction::read));
}

/// Bytes that a read transaction delivered into its read segments.
std::size_t bytesRead(std::span<const segment> segments, const transferResult& result)
{
    std::size_t moved = 0;
    for (std::size_t index = 0; index < segments.size(); ++index) {
        if (segments[index].way == direction::read && (result.end == outcome::done || index < result.segment)) {
            moved += segments[index].bytes.size();
        } else if (segments[index].way == direction::read && index == result.segment) {
            moved += result.bytesMoved;
        }
    }
    return moved;
}

/// A read, piece by piece. What it needs of memory it has before anything is sent.
class reading
{
public:
    reading(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data, transactionHistory& history,
            transferLimits& learnt);
    transferReport run();

private:
    int readPiece();
    int readHubPiece();
    int readOnce(std::span<std::uint8_t> wanted, std::uint32_t position, std::size_t& received);
    void gather(std::span<std::uint8_t> wanted, offsetBytes& offset);

    conversation m_talk;
    const transferSettings& m_settings;
    std::span<std::uint8_t> m_data;
    transferLimits& m_learnt; ///< what the adapter is known to take
    transferLimits m_takes; ///< what is tried
    std::vector<segment> m_segments; ///< of one transaction
    std::vector<std::uint8_t> m_piece; ///< what comes through a hub at once, with its status
    std::uint64_t m_clockHz;
    std::size_t m_moved = 0;
    int m_error;
};

reading::reading(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data,
                 transactionHistory& history, transferLimits& learnt)
    : m_talk(wires, settings, history), m_settings(settings), m_data(data), m_learnt(learnt), m_takes(learnt),
      m_clockHz(wires.clockHz(settings.pace)), m_error(checkTransfer(settings, wires.limits(), true, data.size()))
{
    m_segments.reserve(wires.limits().segments);
    m_piece.resize(throughHub(settings) ? std::min(wires.limits().readBytes, data.size() + 1) : 0);
}

transferReport reading::run()
{
    while (m_error == 0 && m_moved < m_data.size()) {
        if (m_moved != 0 && m_talk.expired()) {
            m_error = ETIME;
        } else {
            m_error = throughHub(m_settings) ? readHubPiece() : readPiece();
        }
    }
    return {.moved = m_moved, .error = m_error, .silence = m_error == ENXIO ? "absent" : ""};
}

/// Makes the segments of one transaction: an offset, when there is one, and as many messages as
/// adapter and wire time allow.
void reading::gather(std::span<std::uint8_t> wanted, offsetBytes& offset)
{
    m_segments.clear();
    if (m_settings.offsetLength == 0) {
        m_segments.push_back({.address = m_settings.target, .way = direction::read, .bytes = wanted});
        return;
    }
    const std::size_t most = std::max(m_takes.readBytes, leastBytes(m_settings, direction::read));
    const std::size_t segments = throughHub(m_settings) ? 2 : m_takes.segments;
    std::size_t left = std::min(wanted.size(), bytesInTime(m_clockHz, m_settings, most));
    m_segments.push_back({.address = m_settings.target, .way = direction::write, .bytes = offset.span()});
    while (left != 0 && m_segments.size() < segments) {
        const std::size_t length = std::min(left, most);
        m_segments.push_back({.address = m_settings.target, .way = direction::read, .bytes = wanted.first(length)});
        wanted = wanted.subspan(length);
        left -= length;
    }
}

/// Reads what one transaction brings of `wanted`; in smaller pieces where the adapter takes
/// less than it was thought to.
/// @return 0 or an errno
int reading::readOnce(std::span<std::uint8_t> wanted, std::uint32_t position, std::size_t& received)
{
    offsetBytes offset(position, m_settings.offsetLength);
    transferResult result{.end = outcome::tooLong};
    do {
        gather(wanted, offset);
        result = m_talk.sendWhenReady(m_segments, m_talk.startWindowNs());
    } while (result.end == outcome::tooLong && takeLess(m_takes, m_settings, m_segments));
    if (result.end == outcome::done) {
        m_learnt = m_takes;
    }
    received = bytesRead(m_segments, result);
    return errorOf(m_talk, m_settings, result.end, wanted.size());
}

int reading::readPiece()
{
    std::size_t received = 0;
    const int error = readOnce(m_data.subspan(m_moved), positionPlus(m_settings, m_moved), received);
    m_moved += received;
    return error;
}

/// Reads one piece through a hub: a status byte and data. The status is delivered with the first piece
/// and dropped from later ones.
/// @return 0 or an errno
int reading::readHubPiece()
{
    const bool first = m_moved == 0;
    const std::size_t dropped = first ? 0 : 1;
    const auto wanted = std::span(m_piece).first(std::min(m_piece.size(), m_data.size() - m_moved + dropped));
    std::size_t received = 0;
    const int error = readOnce(wanted, positionPlus(m_settings, first ? 0 : m_moved - 1), received);
    if (first && received != 0) {
        m_data[0] = wanted[0];
    }
    if (received != 0 && wanted[0] != 0) {
        // what follows a status is no data then
        return ENODATA;
    }
    if (received > dropped) {
        std::ranges::copy(wanted.first(received).subspan(dropped),
                          m_data.begin() + static_cast<std::ptrdiff_t>(m_moved));
        m_moved += received - dropped;
    }
    return error;
}

/// A write, page by page. What it needs of memory it has before anything is sent.
class writing
{
public:
    writing(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
            transactionHistory& history, transferLimits& learnt);
    transferReport run();

private:
    std::size_t makePage();
    transferReport sendPages();

    conversation m_talk;
    const transferSettings& m_settings;
    std::span<const std::uint8_t> m_data;
    transferLimits& m_learnt; ///< what the adapter is known to take
    transferLimits m_takes; ///< what is tried
    std::vector<std::uint8_t> m_page; ///< the message under way: an offset and data
    std::size_t m_sent = 0; ///< bytes acknowledged
    int m_error;
};

writing::writing(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
                 transactionHistory& history, transferLimits& learnt)
    : m_talk(wires, settings, history), m_settings(settings), m_data(data), m_learnt(learnt), m_takes(learnt),
      m_error(checkTransfer(settings, wires.limits(), false, data.size()))
{
    m_page.reserve(std::min(wires.limits().writeBytes, settings.offsetLength + data.size()));
}

/// Makes the next message: an offset, and the data up to the end of its page. @return bytes of data in it
std::size_t writing::makePage()
{
    std::size_t length = m_data.size() - m_sent;
    if (m_settings.offsetLength != 0) {
        const std::size_t takes = std::max(m_takes.writeBytes, leastBytes(m_settings, direction::write));
        const std::size_t most = throughHub(m_settings) ? std::min(takes, hubBytes) : takes;
        length = std::min(length, most - m_settings.offsetLength);
        if (m_settings.pageSize != 0) {
            const std::size_t inPage = (m_settings.position + m_sent) % m_settings.pageSize;
            length = std::min(length, m_settings.pageSize - inPage);
        }
    }
    offsetBytes offset(positionPlus(m_settings, m_sent), m_settings.offsetLength);
    const auto data = m_data.subspan(m_sent, length);
    m_page.assign(offset.span().begin(), offset.span().end());
    m_page.insert(m_page.end(), data.begin(), data.end());
    return length;
}

/// A page counts as moved when its target has taken the next one in: its write cycle is over then.
transferReport writing::sendPages()
{
    std::size_t certain = 0;
    while (m_sent < m_data.size()) {
        const std::size_t length = makePage();
        const segment page{.address = m_settings.target, .way = direction::write, .bytes = m_page};
        const std::uint64_t windowNs = m_sent == 0 ? m_talk.startWindowNs() : m_talk.cycleWindowNs();
        const outcome end = m_talk.sendWhenReady({&page, 1}, windowNs).end;
        if (end == outcome::done) {
            m_learnt = m_takes;
            certain = m_sent;
            m_sent += length;
            if (m_sent < m_data.size() && m_talk.expired()) {
                return {.moved = m_sent, .error = ETIME};
            }
        } else if (end == outcome::tooLong && takeLess(m_takes, m_settings, {&page, 1})) {
            continue;
        } else if (isSilence(end) && m_sent != 0) {
            // The page before is being written. It is doubtful only after it has had all its time.
            return {.moved = m_talk.expired() ? m_sent : certain, .error = ETIME, .silence = "busy"};
        } else {
            const int error = errorOf(m_talk, m_settings, end, length);
            return {.moved = m_sent, .error = error, .silence = error == ENXIO ? "absent" : ""};
        }
    }
    return {.moved = certain};
}

transferReport writing::run()
{
    if (m_error != 0) {
        return {.error = m_error};
    }
    const pageClaim claim(m_settings);
    if (!claim.had()) {
        return {.error = ETIME, .silence = "busy"};
    }
    m_talk.restart();
    transferReport report = sendPages();
    const bool hasCycle = m_settings.offsetLength != 0 || m_settings.writeCycleMs != 0;
    if (report.error == 0 && hasCycle) {
        const outcome end = m_talk.awaitCycleEnd();
        report.error = isSilence(end) ? ETIME : errnoOf(end);
        report.silence = isSilence(end) ? "busy" : "";
    }
    report.moved = report.error == 0 ? m_data.size() : report.moved;
    return report;
}

} // namespace

transferReport readDevice(bus& wires, const transferSettings& settings, std::span<std::uint8_t> data,
                          transactionHistory& history, transferLimits& learnt)
{
    return reading(wires, settings, data, history, learnt).run();
}

transferReport writeDevice(bus& wires, const transferSettings& settings, std::span<const std::uint8_t> data,
                           transactionHistory& history, transferLimits& learnt)
{
    return writing(wires, settings, data, history, learnt).run();
}

mern_detect_state detectDevice(bus& wires, const transferSettings& settings, transactionHistory& history)
{
    struct stateRow {
        outcome end;
        mern_detect_state state;
    };
    constexpr std::array states{
        stateRow{outcome::done, MERN_DETECT_PRESENT},
        stateRow{outcome::addressNotAcknowledged, MERN_DETECT_ABSENT},
        stateRow{outcome::sclHeld, MERN_DETECT_SCL_HELD},
        stateRow{outcome::sdaHeld, MERN_DETECT_SDA_HELD},
    };
    conversation talk(wires, settings, history);
    const outcome end = talk.askUntilAnswered(talk.startWindowNs());
    const auto* row = std::ranges::find(states, end, &stateRow::end);
    return row == states.end() ? MERN_DETECT_UNCERTAIN : row->state;
}

std::uint32_t positionAfter(const transferSettings& settings, bool read, std::size_t length)
{
    std::uint32_t position = settings.position;
    if (throughHub(settings)) {
        // a status byte is none of the device's
        position = positionPlus(settings, read ? length - 1 : length);
    } else if (settings.offsetLength != 0) {
        position += static_cast<std::uint32_t>(
            // past the end it stays there: wrapped, the next write would overwrite the start
            length);
    }
    return position;
}

} // namespace kest::host::iic
