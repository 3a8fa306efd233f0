/// The pages that a write of the service sent, for the counts of page writes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/common/devicetext.h"

namespace kest::service
{

/// Begins before the write.
class writtenPages
{
public:
    /// @param location  device text; one that names no device has no pages
    explicit writtenPages(const std::string& location);

    /// Counts the pages of the write. Of one that failed these are as many as the IIC layer has sent since the object
    /// was made. Behind a hub those of other requests can be among them, and never more than the write has.
    /// @return what is to be said: a warning, or why they are not counted; empty when there is nothing
    [[nodiscard]] std::string count(std::uint32_t offset, std::uint32_t length, bool done) const;

private:
    [[nodiscard]] std::uint32_t sent() const;

    std::optional<tools::device> m_device;
    std::uint32_t m_before = 0;
};

} // namespace kest::service
