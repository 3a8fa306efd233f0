#include "sim/subbusholds.h"

#include <algorithm>
#include <string>

namespace kest::sim
{

hubStatus subBusHolds::meet(std::uint8_t port, chipFaults& faults)
{
    portHold& hold = m_holds.at(port);
    if (hold.line == heldLine::none) {
        if (const auto given = faults.meets(faultKind::hubStatus)) {
            return static_cast<hubStatus>(given->value);
        }
        if (const auto sda = faults.meets(faultKind::hubHoldSda)) {
            hold = {heldLine::sda, sda->number, sda->value};
        } else if (const auto scl = faults.meets(faultKind::hubHoldScl)) {
            hold = {heldLine::scl, scl->number, scl->value};
        }
    }
    return statusOf(hold.line);
}

hubStatus subBusHolds::statusOf(heldLine line)
{
    switch (line) {
    case heldLine::sda:
        return hubStatus::subBusSdaHeld;
    case heldLine::scl:
        return hubStatus::subBusSclHeld;
    case heldLine::none:
        break;
    }
    return hubStatus::done;
}

hubStatus subBusHolds::reset()
{
    for (auto& hold : m_holds) {
        if (hold.resetsToGo == 0) {
            hold = {};
        } else {
            --hold.resetsToGo;
        }
    }
    if (anyHeld(heldLine::sda)) {
        return hubStatus::subBusSdaHeld;
    }
    return anyHeld(heldLine::scl) ? hubStatus::subBusSclHeld : hubStatus::done;
}

bool subBusHolds::anyHeld(heldLine line) const
{
    return std::ranges::find(m_holds, line, &portHold::line) != m_holds.end();
}

void subBusHolds::endEffects(const faultEnded& ended)
{
    for (auto& hold : m_holds) {
        if (hold.by != 0 && ended(hold.by)) {
            hold = {};
        }
    }
}

void subBusHolds::exchange(stateFields& fields)
{
    for (auto& hold : m_holds) {
        auto line = static_cast<std::uint8_t>(hold.line);
        fields.numbers(line, hold.by, hold.resetsToGo);
        fields.check(line <= static_cast<std::uint8_t>(heldLine::scl) && (line == 0) == (hold.by == 0),
                     "a held sub-bus");
        fields.checkFault(hold.by, "the fault that holds a sub-bus");
        hold.line = static_cast<heldLine>(line);
    }
}

void subBusHolds::list(std::vector<listedRegister>& into) const
{
    into.push_back(listHeld("SDA held", heldLine::sda));
    into.push_back(listHeld("SCL held", heldLine::scl));
}

listedRegister subBusHolds::listHeld(const char* name, heldLine line) const
{
    std::uint32_t bits = 0;
    std::string text;
    for (unsigned port = 0; port < ports; ++port) {
        if (m_holds[port].line == line) {
            bits |= 1U << port;
            text += (text.empty() ? "ports " : ", ") + std::to_string(port);
        }
    }
    return {name, bits, text.empty() ? "free" : text};
}

} // namespace kest::sim
