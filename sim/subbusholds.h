/// What faults hold low on the sub-buses of a 922 hub, each port by itself.
#pragma once

#include "sim/chip.h"
#include "sim/hubstatus.h"

#include <array>
#include <cstdint>
#include <vector>

namespace kest::sim
{

class subBusHolds
{
public:
    static constexpr unsigned ports = 8;

    /// A transfer wants the sub-bus of a port, below `ports`. A fault may strike now.
    /// @return done, or the status that the transfer ends with
    [[nodiscard]] hubStatus meet(std::uint8_t port, chipFaults& faults);
    /// A reset of all sub-buses. A hold may outlast it.
    /// @return the status after it
    [[nodiscard]] hubStatus reset();
    void clear() { m_holds.fill({}); }
    void endEffects(const faultEnded& ended);
    /// Loads them from the state file, or stores them there.
    void exchange(stateFields& fields);
    /// Adds a line for each of the two lines of a bus: a bit for each port.
    void list(std::vector<listedRegister>& into) const;

private:
    enum class heldLine : std::uint8_t {
        none,
        sda,
        scl
    };
    struct portHold {
        heldLine line = heldLine::none;
        std::uint32_t by = 0; ///< number of the fault
        std::uint32_t resetsToGo = 0; ///< sub-bus resets that the hold outlasts
    };

    [[nodiscard]] static hubStatus statusOf(heldLine line);
    [[nodiscard]] bool anyHeld(heldLine line) const;
    [[nodiscard]] listedRegister listHeld(const char* name, heldLine line) const;

    std::array<portHold, ports> m_holds{};
};

} // namespace kest::sim
