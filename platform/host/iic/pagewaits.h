/// What targets showed after the pages that this process wrote to them: whether they were busy with a write cycle.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// Sums over pages. A page that went out in parts counts once.
struct pageWaits {
    std::uint32_t pages = 0;
    std::uint32_t busyPages = 0; ///< after which the target did not acknowledge at once
    std::uint32_t unaskedPages = 0; ///< after which the adapter could not ask the target
    std::uint32_t lastPolls = 0; ///< that were not acknowledged after the last page
};

/// The pages of one write.
class pageWaitCount
{
public:
    /// @param page   number of the page in the chip
    /// @param polls  that were not acknowledged after it; nothing when the target could not be asked
    void note(std::uint32_t page, std::optional<std::uint32_t> polls);
    [[nodiscard]] const pageWaits& sums() const { return m_sums; }

private:
    pageWaits m_sums;
    std::optional<std::uint32_t> m_page;
    bool m_busy = false; ///< the latest page counts as busy
    bool m_unasked = false;
};

/// Adds the pages of one write to those of its target. Without memory for that nothing is added.
void addPageWaits(const busIdentity& identity, std::uint8_t target, const pageWaits& waits) noexcept;

/// @return the sums of a target since the process began, by all its handles; of a hub those of all devices behind it
[[nodiscard]] pageWaits pageWaitsOf(const busIdentity& identity, std::uint8_t target);

} // namespace kest::host::iic
