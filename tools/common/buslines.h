/// What goes over a bus, in words: one line for each transaction.
#pragma once

#include <cstdint>
#include <string>

#include "platform/host/iic/watch.h"

namespace kest::tools
{

/// "sim:planar: A0 = 0x50: write 2: 01 2c; read 16: 54 6c ...: done, 0.452 ms". Bytes of a read that failed are not shown.
/// @param mostBytes  of each part that are shown
[[nodiscard]] std::string busLine(const host::iic::busEvent& event, std::size_t mostBytes);

/// Writes such lines for acts of the bus as they come. Acts that differ in time alone and fail, as questions to a busy
/// device, are shown once, with their number, unless all are wanted.
class busLines
{
public:
    /// @param all  shows every act, with all its bytes
    explicit busLines(bool all) : m_all(all) {}

    /// @return what to print now, whole lines
    [[nodiscard]] std::string take(const host::iic::busEvent& event);
    /// @return what is left to print at the end
    [[nodiscard]] std::string rest();

private:
    bool m_all;
    std::string m_failed; ///< the latest act, when it failed: without its time
    unsigned m_repeats = 0; ///< of that one
};

/// Shows on standard error what the buses of the process do. To be called before a bus is used.
void showBuses(bool all);
/// Shows what is left.
void showBusesRest();

} // namespace kest::tools
