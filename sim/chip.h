/// A chip as its data sheet sees the world: STARTs with its address, bytes, a STOP. Knows neither bus nor file.
#pragma once

#include "sim/chance.h"
#include "sim/cutread.h"
#include "sim/faultkinds.h"
#include "sim/pace.h"
#include "sim/signals.h"
#include "sim/statefields.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kest::sim
{

/// The longest time that a chip waits for anything: an hour of a write cycle that a fault draws out, and what a hub
/// needs before the cycle begins.
constexpr std::uint64_t longestWaitNs = 4'000'000'000'000;

/// Longest page of the modelled memories, bytes.
constexpr std::size_t longestPage = 256;

/// What a memory chip keeps its bytes in.
struct memory {
    virtual ~memory() = default;
    virtual void read(std::uint32_t offset, std::span<std::uint8_t> bytes) = 0;
    /// Part of the transaction: the bytes count when the state does.
    virtual void program(std::uint32_t offset, std::span<const std::uint8_t> bytes) = 0;
    /// At once. @return false when they could not be written
    virtual bool write(std::uint32_t offset, std::span<const std::uint8_t> bytes) = 0;
};

/// Faults that only a chip can let strike, because they come in the middle of what it does.
struct chipFaults {
    struct strike {
        std::uint32_t number; ///< of the fault
        std::uint32_t value;
    };
    virtual ~chipFaults() = default;
    /// Whether a fault of that kind strikes the chip now; it counts as struck then.
    virtual std::optional<strike> meets(faultKind kind) = 0;
    virtual void subBusWasReset() = 0; ///< ends the faults that last until then
    /// The address on a sub-bus of the chip that acts from now on; 0: the hub itself again.
    virtual void behindHub(std::uint8_t address) = 0;
};

/// Whether the fault of a number has ended.
using faultEnded = std::function<bool(std::uint32_t number)>;

/// One line of a register listing.
struct listedRegister {
    std::string name;
    std::uint32_t value;
    std::string meaning;
};

/// Bytes of the state file that each chip has: registers, and the page of a write cycle.
constexpr std::size_t chipStateBytes = 128 + longestPage;

class chip
{
public:
    virtual ~chip() = default;

    /// The address of the START that comes next; for chips that answer several.
    virtual void addressedAs(std::uint8_t) {}
    /// Makes its write protection follow a pin. @param isHigh  gets the bus time, ns
    virtual void followPin(std::function<bool(std::uint64_t)>) {}
    /// A START or repeated START with this chip's address. @return whether it acknowledges
    virtual bool start(direction way, busClock& clock, chipFaults& faults) = 0;
    /// A byte sent to it. @return whether it acknowledges
    virtual bool take(std::uint8_t byte, busClock& clock) = 0;
    /// The next byte it sends.
    virtual std::uint8_t give(busClock& clock, chipFaults& faults) = 0;
    /// A STOP, when it is the addressed chip.
    virtual void stop(busClock& clock, chipFaults& faults) = 0;
    /// Forgets what it has taken: the transaction goes on elsewhere, or ended in the middle of a byte.
    virtual void deselect() = 0;
    /// The controller went away in the middle of the byte that give() gave last. The bus drives the rest of it.
    virtual void cut() { deselect(); }
    /// What it goes on driving after a read whose last byte the controller did not acknowledge. Asked before the STOP.
    [[nodiscard]] virtual cutRead drivesOn() const { return {}; }
    /// Whether no fault may strike now: between a status byte of 0 and the last data byte of a hub's read.
    [[nodiscard]] virtual bool guarded() const { return false; }

    /// Loads its volatile state from the state file, or stores it there.
    virtual void exchange(stateFields& fields) = 0;
    virtual void powerUp() = 0;
    /// When its power came, ns of bus time; after powerUp(). Without it the power counts from the next use.
    virtual void poweredAt(std::uint64_t) {}
    /// The power goes. powerUp() and poweredAt() come next; settle() when the state has been stored.
    virtual void losePower(std::uint64_t) {}
    /// Brings what a loss of power left behind into the memory. @return false when the memory would not take it
    virtual bool settle() { return true; }
    /// As it is in a machine that has just been made.
    virtual void asNew() { powerUp(); }
    /// Undoes the effects of faults that have ended.
    virtual void endEffects(const faultEnded&) {}
    virtual std::vector<listedRegister> list(std::uint64_t now) = 0;

    /// Where its random choices come from; before any use.
    void chooseFrom(const chance& choices) { m_choices = choices; }
    /// Loads the number of choices it has made, or stores it; with each exchange(). In a new machine it is 0.
    void exchangeChoices(stateFields& fields) { fields.number(m_choicesMade); }
    void forgetChoices() { m_choicesMade = 0; }

    /// Its pace; before any use. Without one it follows every clock.
    void keepPace(const chipPace& pace) { m_pace = pace; }
    [[nodiscard]] const chipPace& pace() const { return m_pace; }
    /// The next random choice about how it and its controller understand each other.
    chance choiceOnTheWire() { return nextChoice(); }

    /// Whether it is in its place. One that was taken out answers nothing; its memory stays as it is.
    [[nodiscard]] bool isThere() const { return m_isThere; }
    void putInPlace(bool there) { m_isThere = there; }
    /// Loads whether it is in its place, or stores it; with each exchange().
    void exchangePlace(stateFields& fields)
    {
        bool removed = !m_isThere;
        fields.flag(removed);
        m_isThere = !removed;
    }

protected:
    /// The next random choice, as a source of its own: one choice may need several numbers. Power does not touch the
    /// count, so no two choices of a chip are the same.
    chance nextChoice() { return m_choices.of(m_choicesMade++); }

private:
    chipPace m_pace;
    chance m_choices;
    std::uint64_t m_choicesMade = 0;
    bool m_isThere = true;
};

} // namespace kest::sim
