#include "sim/eeprom.h"

#include <limits>

namespace kest::sim
{

namespace
{
constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();
}

bool eeprom::start(direction, busClock& clock, chipFaults&)
{
    // a START takes any chip out of what it was doing
    deselect();
    return clock.now >= writeDoneAt;
}

bool eeprom::take(std::uint8_t byte, busClock&)
{
    bool acknowledged = true;
    if (offsetBytesSeen < type.offsetBytes) {
        counter = wrap(offsetBytesSeen == 0 ? byte : counter << 8 | byte);
        ++offsetBytesSeen;
    } else if (settings.protect == protection::nak) {
        acknowledged = false;
    } else {
        latchByte(byte);
    }
    return acknowledged;
}

void eeprom::latchByte(std::uint8_t byte)
{
    const std::uint32_t column =
        // only the column counts up: a long write wraps inside its page
        counter % type.pageBytes;
    latch[column] = byte;
    latched.set(column);
    counter = counter - column + (column + 1) % type.pageBytes;
}

std::uint8_t eeprom::give(busClock&, chipFaults&)
{
    const std::uint8_t byte = cell(counter);
    counter = wrap(counter + 1);
    return byte;
}

void eeprom::stop(busClock& clock, chipFaults& faults)
{
    if (latched.any() && settings.protect == protection::none) {
        const auto stuck = faults.writeCycleStuck();
        if (!stuck || stuck->value != 0) {
            program();
        }
        if (!stuck) {
            writeDoneAt = clock.now + settings.writeCycleNs;
        } else if (stuck->value != 0) {
            writeDoneAt = clock.now + std::uint64_t{stuck->value} * 1'000'000;
        } else {
            writeDoneAt = never;
            stuckBy = stuck->number;
        }
    }
    deselect();
}

void eeprom::program()
{
    std::array<std::uint8_t, longestPage> page{};
    const std::span cells{page.data(), type.pageBytes};
    const std::uint32_t pageStart = counter - counter % type.pageBytes;
    storage.read(pageStart, cells);
    for (std::size_t column = 0; column < cells.size(); ++column) {
        if (latched.test(column)) {
            cells[column] = latch[column];
        }
    }
    storage.program(pageStart, cells);
}

void eeprom::deselect()
{
    latched.reset();
    offsetBytesSeen = 0;
    cutBit = notCut;
}

// The controller left after the fourth bit of the byte at the counter.
void eeprom::cut()
{
    deselect();
    if (settings.holdSdaAfterCut) {
        cutBit = 4;
    }
}

void eeprom::clockPulse()
{
    if (cutBit == acknowledgeSlot) {
        counter = wrap(counter + 1);
        cutBit = 0;
    } else if (cutBit != notCut) {
        ++cutBit;
    }
}

bool eeprom::holdsSda() const { return cutBit < acknowledgeSlot && (cell(counter) >> (7 - cutBit) & 1) == 0; }

std::uint8_t eeprom::cell(std::uint32_t offset) const
{
    std::uint8_t byte = 0xFF;
    storage.read(offset, {&byte, 1});
    return byte;
}

void eeprom::state(stateFields& fields)
{
    fields.numbers(counter, writeDoneAt, stuckBy, cutBit);
    fields.check(counter < type.sizeBytes, "an EEPROM's address counter");
    fields.check(stuckBy != 0 ? writeDoneAt == never : writeDoneAt <= fields.busTime() + longestWaitNs,
                 "the end of a write cycle");
    fields.check(cutBit <= acknowledgeSlot || cutBit == notCut, "an EEPROM's bit");
}

void eeprom::powerUp()
{
    deselect();
    counter = 0;
    writeDoneAt = 0;
    stuckBy = 0;
}

void eeprom::endEffects(const faultEnded& ended)
{
    if (stuckBy != 0 && ended(stuckBy)) {
        stuckBy = 0;
        writeDoneAt = 0;
    }
}

std::vector<listedRegister> eeprom::list(std::uint64_t now)
{
    const bool busy = now < writeDoneAt;
    return {{"counter", counter, "next byte that a read without an offset gives"},
            {"busy", busy ? 1U : 0U,
             stuckBy != 0 ? "write cycle that does not end"
             : busy       ? "write cycle"
                          : "ready"}};
}

} // namespace kest::sim
