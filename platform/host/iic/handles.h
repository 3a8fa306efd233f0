/// The open devices of this process, by handle.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/host/iic/device.h"
#include "platform/mern.h"

namespace kest::host::iic
{

/// Gives out tickets: a place in the table, its generation, and what tells this process's tickets from another's.
class handleTable
{
public:
    static handleTable& instance();

    mern_t add(std::shared_ptr<device> opened);
    std::shared_ptr<device> find(const mern_t& handle); ///< null for a closed or foreign handle
    std::shared_ptr<device> take(const mern_t& handle); ///< the same, and the handle is closed from now on

    /// Waits for no call that is under way: a lock may be waited for as long as its caller likes.
    void beforeFork();
    /// The child keeps the parent's handles, but not those that another thread was using: nobody would ever unlock
    /// their devices.
    void afterFork(bool inChild);

private:
    handleTable();
    struct place {
        std::shared_ptr<device> occupant;
        mern_t ticket{}; ///< of the occupant or the latest one
        bool heldForFork = false;
    };
    place* placeOf(const mern_t& handle);

    std::mutex m_mutex;
    std::vector<place> m_places;
    std::uint32_t m_process[2]{}; ///< in new tickets; random, differs from process to process
};

} // namespace kest::host::iic
