/// First-failure data: what the layer remembers of a device's last bus transactions, and the record of the first
/// failure.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/host/iic/bus.h"

namespace kest::host::iic
{

/// One bus transaction, or several alike that followed each other.
struct transactionNote {
    std::uint64_t atNs = 0; ///< end of the last one, on the bus's clock
    std::uint8_t address = 0;
    std::uint32_t written = 0; ///< bytes in write direction
    std::uint32_t read = 0;
    std::array<std::uint8_t, 8> head{}; ///< the first bytes written
    outcome end = outcome::done;
    std::uint32_t times = 1;
};

/// The latest transactions of a handle.
class transactionHistory
{
public:
    void note(std::uint64_t atNs, std::span<const segment> segments, outcome end);
    [[nodiscard]] std::vector<transactionNote> latest() const; ///< oldest first

private:
    static constexpr std::size_t kept = 16;
    std::array<transactionNote, kept> m_notes;
    std::size_t m_count = 0;
};

/// A failed call on an open device.
struct failureReport {
    const char* operation = "";
    std::uint8_t target = 0; ///< 0: none was set
    std::uint32_t position = 0;
    std::uint32_t length = 0; ///< bytes asked for
    std::uint32_t moved = 0;
    int error = 0;
    std::uint16_t offsetLength = 0;
    const char* silence = ""; ///< "busy" or "absent" when the device did not acknowledge, else empty
    const char* lacks = ""; ///< what the adapter lacks for the transfer, when it refused it, else empty
};

/// Name of an errno that the layer returns, "E?" for another.
const char* errnoName(int error);

/// Keeps the report when the bus and address have none yet. Never fails: a report that can't be kept in a file is kept
/// in this process.
void keepFirstFailure(bus& where, const failureReport& report, const transactionHistory& history);
/// @param[out] text  whole JSON text of at most 4 KiB, empty when there is none
/// @return 0, or an errno when nobody can find out
int firstFailure(const busIdentity& identity, std::uint8_t target, std::string& text);
/// Lets the next failure be recorded. @return 0 or an errno
int dropFirstFailure(const busIdentity& identity, std::uint8_t target);

} // namespace kest::host::iic
