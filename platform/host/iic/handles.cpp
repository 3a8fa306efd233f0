#include "platform/host/iic/handles.h"

#include <algorithm>
#include <random>
#include <span>
#include <utility>

#include <unistd.h>

#include "base/fork.h"

namespace kest::host::iic
{
namespace
{

// no open handle is all zeros, nor MERN_INVALID
constexpr std::uint32_t ticketMark = 0x4949431;
// word of a ticket
constexpr std::size_t generation = 2;

[[maybe_unused]] const handleTable& madeAtLoad = handleTable::instance();

/// The words that tell handles apart.
std::span<const std::uint32_t> telling(const mern_t& handle) { return std::span(handle.words).first(5); }

} // namespace

handleTable& handleTable::instance()
{
    // lives as long as the process: static destructors may still close devices
    static auto* table = new handleTable;
    return *table;
}

handleTable::handleTable() { watchForks<handleTable>(); }

mern_t handleTable::add(std::shared_ptr<device> opened)
{
    const std::lock_guard hold(m_mutex);
    // not while the program is being loaded: a source that fails would end it
    if (m_places.empty()) {
        std::random_device source;
        m_process[0] = source();
        m_process[1] = source();
    }
    auto free = std::ranges::find(m_places, nullptr, &place::occupant);
    if (free == m_places.end()) {
        free = m_places.insert(free, place{});
    }
    free->occupant = std::move(opened);
    const auto number = static_cast<std::uint32_t>(free - m_places.begin());
    free->ticket = {{ticketMark, number, free->ticket.words[generation] + 1, m_process[0], m_process[1], 0}};
    return free->ticket;
}

handleTable::place* handleTable::placeOf(const mern_t& handle)
{
    const std::uint32_t number = handle.words[1];
    place* found = number < m_places.size() ? &m_places[number] : nullptr;
    const bool open =
        found != nullptr && found->occupant != nullptr && std::ranges::equal(telling(found->ticket), telling(handle));
    return open ? found : nullptr;
}

std::shared_ptr<device> handleTable::find(const mern_t& handle)
{
    const std::lock_guard hold(m_mutex);
    const place* found = placeOf(handle);
    return found == nullptr ? nullptr : found->occupant;
}

std::shared_ptr<device> handleTable::take(const mern_t& handle)
{
    const std::lock_guard hold(m_mutex);
    place* found = placeOf(handle);
    return found == nullptr ? nullptr : std::exchange(found->occupant, nullptr);
}

void handleTable::beforeFork()
{
    m_mutex.lock();
    for (place& each : m_places) {
        each.heldForFork = each.occupant != nullptr && each.occupant->mutex.try_lock();
    }
}

void handleTable::afterFork(bool inChild)
{
    for (place& each : m_places) {
        if (each.heldForFork) {
            each.occupant->mutex.unlock();
        } else if (inChild && each.occupant != nullptr) {
            // nobody has this ticket, and the place stays taken: the device can't even be destroyed
            ++each.ticket.words[generation];
        }
        each.heldForFork = false;
    }
    // the parent must not take the child's tickets for its own
    if (inChild) {
        m_process[0] = m_process[0] * 31 + static_cast<std::uint32_t>(getpid());
    }
    m_mutex.unlock();
}

} // namespace kest::host::iic
