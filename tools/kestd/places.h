/// Places for clients: how many there are, and how many of them one user has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <sys/types.h>

#include "tools/kestd/jobs.h"

namespace kest::service
{

class clientPlaces;

/// A connection's place. The destructor gives it back.
class clientPlace
{
public:
    clientPlace() = default; ///< none
    clientPlace(clientPlaces& places, std::uint64_t owner, std::shared_ptr<jobShare> share)
        : m_places(&places), m_owner(owner), m_share(std::move(share))
    {
    }
    clientPlace(clientPlace&& other) noexcept;
    clientPlace(const clientPlace&) = delete;
    clientPlace& operator=(const clientPlace&) = delete;
    clientPlace& operator=(clientPlace&&) = delete;
    ~clientPlace();

    [[nodiscard]] explicit operator bool() const { return m_places != nullptr; }
    /// The owner's jobs, shared by all its connections.
    [[nodiscard]] const std::shared_ptr<jobShare>& share() const { return m_share; }

private:
    clientPlaces* m_places = nullptr;
    std::uint64_t m_owner = 0;
    std::shared_ptr<jobShare> m_share;
};

/// Each user that is permitted something has a share, by the user id of the connecting process; root and the service's
/// own user are like any other. All users that are permitted nothing have one share together. Any thread.
class clientPlaces
{
public:
    struct placeLimits {
        std::size_t all;
        std::size_t eachOwner;
    };

    /// @return a place; none when all are taken, or all of this owner
    [[nodiscard]] clientPlace take(uid_t user, bool stranger, placeLimits limits);

private:
    friend class clientPlace;
    void giveBack(std::uint64_t owner);

    struct placeOwner {
        std::shared_ptr<jobShare> share;
        std::size_t places = 0;
    };
    std::mutex m_lock;
    std::map<std::uint64_t, placeOwner> m_owners; ///< those with a place
    std::size_t m_taken = 0;
};

} // namespace kest::service
