/// One bus as all its users share it: its chips in this process, and its record in the machine's state file.
#pragma once

#include "sim/bus.h"
#include "sim/buschips.h"
#include "sim/busstate.h"
#include "sim/machinedescription.h"
#include "sim/realclock.h"
#include "sim/statefile.h"
#include "sim/wave.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

namespace kest::sim
{

class sharedBus
{
public:
    /// @param all    the machine, of which this is bus number `index`; outlives the bus
    /// @param clock  whose real time transactions take; null: they only count
    sharedBus(const machineDescription& all, std::size_t index, const std::filesystem::path& folder, realClock* clock);
    sharedBus(const sharedBus&) = delete;
    sharedBus& operator=(const sharedBus&) = delete;

    /// Of a bus with so many chips.
    static constexpr std::size_t recordBytes(std::size_t chips) { return busStateBytes + chips * chipStateBytes; }
    /// Before any other use. The file outlives the bus.
    void attach(stateFile& states, std::uint64_t layoutMark);

    [[nodiscard]] const busDescription& description() const { return m_about; }
    [[nodiscard]] std::uint64_t machineSeed() const { return m_machineSeed; }
    [[nodiscard]] realClock* clock() const { return m_clock; }
    [[nodiscard]] busChips& chips() { return m_chips; }
    /// Valid after load(), under the bus's lock.
    [[nodiscard]] busState& state() { return m_state; }

    // The next six need the bus's lock.

    /// Loads the state, and writes a page that a killed process did not get to. Chips are loaded when they are needed.
    /// @return false when the file is gone or another's, when the record is damaged, or when the page can't be written
    bool load();
    /// What is damaged in the record, that of any chip included; empty: nothing.
    std::string damage();
    /// Whether what was done since load() may count: it met no damaged record of a chip, and no image was lost. What a
    /// lost image did not give means nothing, and a damaged record stays for the one who opens the machine next.
    bool isSound();
    /// Makes the chips and state the current record of the file.
    void store();
    /// Ends a transaction: writes what was recorded, stores, and writes the page that was programmed, in this order.
    /// @param wave  null: nothing was recorded
    /// @return false when isSound() is, and nothing was stored, or when the image would not take the page
    bool commit(waveText* wave);
    /// Ends the use of the chips that load() began.
    void endUse() { m_chips.endUse(); }

    /// Whether a load met a damaged record. Any thread.
    [[nodiscard]] bool metDamage() const { return m_damaged; }

    /// Who holds the bus: done, sclHeld or sdaHeld.
    [[nodiscard]] outcome heldLine() const;
    /// Whether somebody keeps SDA low, also while SCL is held.
    [[nodiscard]] bool isSdaLow() const;
    /// Lets go of the lines when their hold has ended: by its count or time, or by the reset of the hub that holds them.
    /// @param wave  gets the line that rises, at the time of it
    void endHold(waveText& wave);
    /// Counts an attempt that met SCL held.
    void countAttempt();
    /// Shows what a change between transactions let go of. One line rises at once; a second one waits for the next START,
    /// because two never change in one tick.
    /// @param wave  of this use of the bus
    void showFreedLine(waveText& wave) const;
    /// Lets the events happen that are due.
    /// @param wave  gets the line that one of them lets go of
    void playDueEvents(waveText& wave);
    /// Lets time pass with the bus idle, each event at its time.
    /// @param end   bus time, ns; not before now
    /// @param wave  as for playDueEvents()
    void passTime(std::uint64_t end, waveText& wave);

    /// A text for what goes over the bus from now on.
    [[nodiscard]] waveText beginWaveText() const { return {m_state.waveOrigin, m_state.waveAt}; }
    /// Appends what a text holds to the file of the recording under way. A file that is gone, cut or full ends it; the bus goes on.
    void appendWave(waveText& wave);
    /// Where the recording under way is kept. @param path  at most stateFile::longestPath bytes
    void setWavePath(const std::string& path) { m_file->setWavePath(m_index, path); }

private:
    friend class busUse;
    [[nodiscard]] bool isHoldOver() const;
    const char* readRecord();
    bool writePage();
    bool settle();

    const busDescription m_about;
    const std::size_t m_index;
    const std::uint64_t m_machineSeed;
    const chance m_choices;
    realClock* const m_clock;
    busChips m_chips;
    stateFile* m_file = nullptr;
    std::uint64_t m_mark = 0;
    busState m_state;
    std::atomic<bool> m_damaged = false;
};

/// A use of the bus by one thread of one process. The state is loaded at its begin, and lost at its end unless it was
/// committed.
class busUse
{
public:
    explicit busUse(sharedBus& bus);
    ~busUse() { m_bus.endUse(); }
    busUse(const busUse&) = delete;
    busUse& operator=(const busUse&) = delete;

    [[nodiscard]] bool usable() const { return m_loaded; }
    /// What goes over the lines in this use, for the recording under way.
    [[nodiscard]] waveText& wave() { return m_wave; }
    /// In real time, waits for the bus time that was used.
    /// @return false when the bus cannot be used, or when what was done does not count: see sharedBus::isSound()
    bool commit();

private:
    void catchUp();
    [[nodiscard]] bool isShown() const;
    void waitForBusTime();

    sharedBus& m_bus;
    stateFile::hold m_held;
    bool m_loaded;
    waveText m_wave;
    std::uint64_t m_startedAt = 0;
    std::uint64_t m_timeAtStart = 0;
};

} // namespace kest::sim
