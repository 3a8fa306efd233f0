#include "tools/kestd/places.h"

#include <algorithm>
#include <utility>

namespace kest::service
{
namespace
{

// no user has this number
constexpr std::uint64_t strangers = std::uint64_t{1} << 32;
// one place in so many may go to them
constexpr std::size_t strangersPerSlot = 8;

} // namespace

clientPlace::clientPlace(clientPlace&& other) noexcept
    : m_places(std::exchange(other.m_places, nullptr)), m_owner(other.m_owner), m_share(std::move(other.m_share))
{
}

clientPlace::~clientPlace()
{
    if (m_places != nullptr) {
        m_places->giveBack(m_owner);
    }
}

clientPlace clientPlaces::take(uid_t user, bool stranger, placeLimits limits)
{
    const std::uint64_t owner = stranger ? strangers : user;
    const std::size_t few = std::max<std::size_t>(limits.all / strangersPerSlot, 1);
    const std::size_t most = stranger ? std::min(limits.eachOwner, few) : limits.eachOwner;
    const std::lock_guard guard(m_lock);
    const auto found = m_owners.find(owner);
    if (m_taken >= limits.all || (found != m_owners.end() ? found->second.places : 0) >= most) {
        return {};
    }
    placeOwner& mine = found != m_owners.end() ? found->second : m_owners[owner];
    if (mine.share == nullptr) {
        mine.share = std::make_shared<jobShare>();
    }
    ++mine.places;
    ++m_taken;
    return {*this, owner, mine.share};
}

void clientPlaces::giveBack(std::uint64_t owner)
{
    const std::lock_guard guard(m_lock);
    const auto found = m_owners.find(owner);
    --m_taken;
    if (--found->second.places == 0) {
        m_owners.erase(found);
    }
}

} // namespace kest::service
