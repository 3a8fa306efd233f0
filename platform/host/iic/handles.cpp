#include "platform/host/iic/handles.h"

#include <algorithm>
#include <random>
#include <utility>

namespace kest::host::iic
{
namespace
{

constexpr std::uint32_t ticketMark = 0x4949431; // no open handle is all zeros, nor MERN_INVALID

} // namespace

handleTable& handleTable::instance()
{
    static auto* table = new handleTable; // lives as long as the process: static destructors may still close devices
    return *table;
}

handleTable::handleTable()
{
    std::random_device source;
    m_process[0] = source();
    m_process[1] = source();
}

mern_t handleTable::add(std::shared_ptr<device> opened)
{
    const std::lock_guard hold(m_mutex);
    auto                  free = std::ranges::find(m_places, nullptr, &place::occupant);
    if (free == m_places.end()) {
        free = m_places.insert(free, place{});
    }
    free->occupant = std::move(opened);
    ++free->generation;
    const auto number = static_cast<std::uint32_t>(free - m_places.begin());
    return {{ticketMark, number, free->generation, m_process[0], m_process[1], 0}};
}

handleTable::place* handleTable::placeOf(const mern_t& handle)
{
    const std::uint32_t number = handle.words[1];
    const bool ours = handle.words[0] == ticketMark && number < m_places.size() && handle.words[3] == m_process[0] &&
                      handle.words[4] == m_process[1];
    place* found = ours ? &m_places[number] : nullptr;
    return found != nullptr && found->occupant != nullptr && found->generation == handle.words[2] ? found : nullptr;
}

std::shared_ptr<device> handleTable::find(const mern_t& handle)
{
    const std::lock_guard hold(m_mutex);
    const place*          found = placeOf(handle);
    return found == nullptr ? nullptr : found->occupant;
}

std::shared_ptr<device> handleTable::take(const mern_t& handle)
{
    const std::lock_guard hold(m_mutex);
    place*                found = placeOf(handle);
    return found == nullptr ? nullptr : std::exchange(found->occupant, nullptr);
}

} // namespace kest::host::iic
