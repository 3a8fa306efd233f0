/// One transaction on a bus: the segments as STARTs, bytes and a STOP, with the faults that strike in between.
#pragma once

#include "sim/busstate.h"
#include "sim/hub922.h"
#include "sim/pca955x.h"
#include "sim/wire.h"

namespace kest::sim
{

/// The chips that answer on a bus itself, by their address.
struct busChips {
    struct resetLine {
        std::uint8_t hubAddress;
        hub922* hub;
        const pca955x* driver;
    };
    std::array<chip*, 128> at{}; ///< null: nobody there
    std::array<hub922*, 128> hubAt{};
    std::vector<resetLine> resetLines;

    /// Brings hubs into reset or out of it, as their lines are. Ends the faults that last until then.
    void driveResetLines(std::vector<faultRecord>& faults) const;

    [[nodiscard]] chip* find(std::uint8_t address) const { return at[address >> 1]; }
    [[nodiscard]] hub922* findHub(std::uint8_t address) const { return hubAt[address >> 1]; }
};

class transaction
{
public:
    transaction(const busChips& chips, busState& state, wire& lines, std::span<segment> segments);
    transferResult run();

private:
    enum class ending : std::uint8_t {
        stop, ///< with a STOP that all see
        dropped, ///< a STOP after which nothing of the latest write counts
        cut, ///< nothing more from this controller
        held ///< lines held
    };
    bool runSegment(std::size_t index);
    bool sendAddress(const segment& part);
    bool addressStruck(const segment& part);
    bool addressRefused(const segment& part);
    bool moveBytes(segment& part);
    bool sendByte(const segment& part, std::uint8_t byte);
    bool readByte(const segment& part, std::uint8_t& byte, bool more);
    bool struckByByte(const segment& part, std::uint8_t byte);
    bool holdLine(const segment& part, std::uint64_t byte);
    bool fail(outcome how, ending with);
    void finish();
    [[nodiscard]] bool hubStays(const segment& part) const;

    const busChips& chips;
    busState& state;
    wire& lines;
    std::span<segment> segments;
    faultPlan faults;
    transferResult result;
    ending end = ending::stop;
    chip* selected = nullptr;
    std::uint64_t byteNumber = 0; ///< data bytes since the START
    std::array<bool, 128> answered{}; ///< addresses that have acknowledged
};

} // namespace kest::sim
