#include "sim/writecycle.h"

#include <algorithm>

namespace kest::sim
{

void writeCycle::forget()
{
    m_keeping = keeping::nothing;
    m_pageStart = m_length = 0;
}

void writeCycle::begin(std::uint64_t doneAt, std::uint32_t pageStart, std::span<const std::uint8_t> old)
{
    m_doneAt = doneAt;
    m_keeping = keeping::oldPage;
    m_pageStart = pageStart;
    m_length = static_cast<std::uint32_t>(old.size());
    std::ranges::copy(old, m_bytes.begin());
}

void writeCycle::beginStuck(std::uint32_t fault)
{
    forget();
    m_doneAt = never;
    m_stuckBy = fault;
}

void writeCycle::endEffects(const faultEnded& ended)
{
    if (m_stuckBy != 0 && ended(m_stuckBy)) {
        m_stuckBy = 0;
        m_doneAt = 0;
    }
}

void writeCycle::losePower(std::uint64_t now, memory& cells, const chance& choice)
{
    enum : std::uint32_t {
        oldByte,
        newByte,
        kinds = 3
    };
    if (m_keeping == keeping::oldPage && isRunning(now)) {
        std::array<std::uint8_t, longestPage> programmed{};
        cells.read(m_pageStart, std::span{programmed}.first(m_length));
        for (std::size_t i = 0; i < m_length; ++i) {
            const std::uint32_t kind = choice.below(i, kinds);
            if (kind != oldByte) {
                m_bytes[i] = kind == newByte ? programmed[i] : static_cast<std::uint8_t>(choice.bits(i));
            }
        }
        m_keeping = keeping::tornPage;
    } else if (m_keeping == keeping::oldPage) {
        forget();
    }
    m_doneAt = 0;
    m_stuckBy = 0;
}

bool writeCycle::settle(memory& cells)
{
    if (m_keeping != keeping::tornPage) {
        return true;
    }
    if (!cells.write(m_pageStart, page())) {
        return false;
    }
    forget();
    return true;
}

// The old page is of no use once the cycle has ended.
void writeCycle::exchange(stateFields& fields, std::uint32_t sizeBytes)
{
    auto kept = static_cast<std::uint8_t>(m_keeping);
    fields.numbers(m_doneAt, m_stuckBy, kept, m_pageStart, m_length);
    fields.check(m_stuckBy != 0 ? m_doneAt == never : m_doneAt <= fields.busTime() + longestWaitNs,
                 "the end of a write cycle");
    fields.checkFault(m_stuckBy, "the fault that keeps a write cycle from ending");
    fields.check(kept <= static_cast<std::uint8_t>(keeping::tornPage) && m_length <= longestPage &&
                     m_pageStart <= sizeBytes && m_length <= sizeBytes - m_pageStart && (kept == 0) == (m_length == 0),
                 "the page of a write cycle");
    if (fields.damaged() != nullptr) {
        return;
    }
    m_keeping = static_cast<keeping>(kept);
    fields.bytes(page());
    if (m_keeping == keeping::oldPage && fields.loads() && !isRunning(fields.busTime())) {
        forget();
    }
}

} // namespace kest::sim
