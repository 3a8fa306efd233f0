/// One bus of a machine in this process: its chips, and their state in the shared file.
#pragma once

#include "sim/image.h"
#include "sim/machinefile.h"
#include "sim/statefile.h"
#include "sim/transaction.h"

#include <atomic>

namespace kest::sim
{

class busModel final : public bus
{
public:
    /// @param all    the machine, of which this is bus number `index`
    /// @param clock  whose real time transactions take; null: they only count
    busModel(const machineDescription& all, std::size_t index, const std::filesystem::path& folder, realClock* clock);

    [[nodiscard]] std::size_t recordBytes() const { return busStateBytes + members.size() * chipStateBytes; }
    /// Before any other use. The file outlives the bus.
    void attach(stateFile& states, std::uint64_t layoutMark) { file = &states, mark = layoutMark; }

    transferResult transfer(std::span<segment> segments, std::uint32_t speedKhz) override;
    transferResult probe(std::uint8_t address, std::uint32_t speedKhz) override;
    outcome reset() override;
    outcome clocks(unsigned count) override;
    outcome lines() override;
    std::uint64_t busTimeNs() override;
    void idle(std::uint64_t nanoseconds) override;
    [[nodiscard]] std::uint32_t defaultSpeedKhz() const override { return about.speedKhz; }
    [[nodiscard]] const std::string& name() const override { return about.name; }

    [[nodiscard]] const busDescription& description() const { return about; }
    void registers(std::vector<machine::registerValue>& into);
    void powerCycle();
    /// Missing images are made. Throws std::runtime_error.
    void prepareImages(const std::string& machineFile);

    /// What is damaged in the bus's state; empty: nothing. Under the lock of all.
    std::string damage();
    /// Whether a use met a damaged state. Any thread.
    [[nodiscard]] bool metDamage() const { return damaged; }
    /// State of a new machine. Under the lock of all.
    void makeNew();
    /// Faults of the machine file instead of those it had before. Under the lock of all.
    void replaceFileFaults(std::vector<faultRecord> fromFile);

    /// @return false when there is no room for more
    bool addFault(const faultRecord& record);
    bool clearFaults(std::optional<std::uint32_t> number);
    void listFaults(std::vector<machine::listedFault>& into);

    /// @param path  absolute
    bool startWave(const std::string& path);
    bool stopWave();

private:
    struct member {
        const chipDescription* about;
        std::unique_ptr<image> cells; ///< null for chips without memory
        std::unique_ptr<class chip> model;
        std::string label;
    };
    class session;
    friend class session;

    void addMember(const chipDescription& chip, const std::filesystem::path& folder);
    void connect();
    bool load();
    const char* readRecord();
    [[nodiscard]] bool imageLost() const;
    void endEffects();
    [[nodiscard]] waveText freedLines() const;
    bool beginWave(int file, const std::string& path);
    void store();
    bool commit(waveText* wave);
    bool writePage();
    void appendWave(const std::string& text);
    [[nodiscard]] outcome heldLine() const;
    [[nodiscard]] bool adapterGone() const;
    [[nodiscard]] std::uint64_t bitNs(std::uint32_t speedKhz) const;
    void free();
    outcome pulses(unsigned count, bool stop);

    const busDescription about;
    const std::size_t index;
    realClock* const clock;
    std::vector<member> members;
    busChips chips;
    stateFile* file = nullptr;
    std::uint64_t mark = 0;
    busState state; ///< valid inside a session
    std::atomic<bool> damaged = false;
};

} // namespace kest::sim
