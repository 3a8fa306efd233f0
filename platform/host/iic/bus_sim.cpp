#include "platform/host/iic/bus_sim.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <stdexcept>
#include <system_error>

#include <linux/i2c.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/hex.h"
#include "platform/host/iic/adapter.h"
#include "sim/machine.h"

namespace kest::host::iic
{
namespace
{

/// What the kernel would say of such an adapter, so that both kinds of bus see the same pieces.
unsigned long functionsOf(const sim::adapterKind& kind)
{
    constexpr unsigned long words =
        I2C_FUNC_SMBUS_QUICK | I2C_FUNC_SMBUS_BYTE | I2C_FUNC_SMBUS_BYTE_DATA | I2C_FUNC_SMBUS_WORD_DATA;
    constexpr unsigned long blocks = words | I2C_FUNC_SMBUS_I2C_BLOCK;
    unsigned long functions = blocks | I2C_FUNC_I2C;
    if (kind.smbus != sim::smbusCalls::none) {
        functions = kind.smbus == sim::smbusCalls::words ? words : blocks;
    }
    return kind.noEmptyMessages ? functions & ~static_cast<unsigned long>(I2C_FUNC_SMBUS_QUICK) : functions;
}

struct endRow {
    sim::outcome simulated;
    outcome end;
};
constexpr std::array ends{
    endRow{.simulated = sim::outcome::done, .end = outcome::done},
    endRow{.simulated = sim::outcome::addressNotAcknowledged, .end = outcome::addressNotAcknowledged},
    endRow{.simulated = sim::outcome::dataNotAcknowledged, .end = outcome::dataNotAcknowledged},
    endRow{.simulated = sim::outcome::arbitrationLost, .end = outcome::arbitrationLost},
    endRow{.simulated = sim::outcome::sclHeld, .end = outcome::sclHeld},
    endRow{.simulated = sim::outcome::sdaHeld, .end = outcome::sdaHeld},
    endRow{.simulated = sim::outcome::shortTransfer, .end = outcome::shortTransfer},
    endRow{.simulated = sim::outcome::gone, .end = outcome::gone},
    endRow{.simulated = sim::outcome::timedOut, .end = outcome::timedOut},
    endRow{.simulated = sim::outcome::refused, .end = outcome::tooLong},
};

outcome endOf(sim::outcome simulated)
{
    const auto* row = std::ranges::find(ends, simulated, &endRow::simulated);
    return row == ends.end() ? outcome::failed : row->end;
}

transferResult fromSimulated(const sim::transferResult& result)
{
    return {.end = endOf(result.end),
            .segment = result.segment,
            .bytesMoved = result.bytesMoved,
            .nowNs = result.busTimeNs};
}

/// Letters, digits, '-' and '_' stay; everything else becomes %XX.
std::string fileNameSafe(const std::string& text)
{
    std::string safe;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (std::isalnum(byte) != 0 || character == '-' || character == '_') {
            safe += character;
        } else {
            safe += '%';
            appendHexByte(safe, byte, upperHexDigits);
        }
    }
    return safe;
}

class simulatedBus final : public bus
{
public:
    simulatedBus(std::shared_ptr<sim::machine> machine, std::shared_ptr<sim::bus> wires, busIdentity identity)
        : m_machine(std::move(machine)), m_wires(std::move(wires)), m_identity(std::move(identity)),
          m_functions(functionsOf(m_wires->adapter()))
    {
    }

    transferResult transfer(std::span<const segment> segments, const transferPace& pace) override
    {
        if (const outcome end = checkSegments(segments, m_functions); end != outcome::done) {
            return {.end = end, .nowNs = nowNs()};
        }
        std::vector<sim::segment> parts;
        for (const segment& part : segments) {
            parts.push_back({.address = part.address,
                             .way = part.way == direction::read ? sim::direction::read : sim::direction::write,
                             .bytes = part.bytes,
                             .joined = false});
        }
        const sim::transferResult result = m_wires->transfer(parts, pace.speedKhz);
        return fromSimulated(result);
    }

    /// No simulated chip minds its address alone.
    transferResult probe(std::uint8_t address, probeMethod method, const transferPace& pace) override
    {
        return hasFunctions(m_functions, I2C_FUNC_SMBUS_QUICK) ? fromSimulated(m_wires->probe(address, pace.speedKhz))
                                                               : askAddress(*this, address, method, m_functions, pace);
    }

    outcome reset(std::uint8_t /*address*/) override { return endOf(m_wires->reset()); }
    [[nodiscard]] transferLimits limits() const override
    {
        transferLimits takes = limitsOf(m_functions);
        takes.repeatedStart = !m_wires->adapter().stopBetween;
        return takes;
    }
    [[nodiscard]] std::uint64_t clockHz(const transferPace& pace) const override
    {
        return std::uint64_t{1000} * sim::clockKhz(pace.speedKhz, m_wires->defaultSpeedKhz());
    }
    [[nodiscard]] const busIdentity& identity() const override { return m_identity; }
    [[nodiscard]] std::string adapterName() const override
    {
        return "simulated machine " + m_machine->folder().string();
    }
    [[nodiscard]] std::vector<std::string> capabilities() const override
    {
        std::vector<std::string> texts = functionTexts(m_functions);
        texts.insert(texts.end(), {"tells address from data", "nine clocks and a STOP"});
        return texts;
    }
    [[nodiscard]] std::vector<std::string> lacks() const override { return sim::adapterLimits(m_wires->adapter()); }
    bool heldByDriver(std::uint8_t /*address*/) override { return false; }
    std::uint64_t nowNs() override { return m_wires->busTimeNs(); }
    void pause(std::uint64_t nanoseconds) override { m_wires->idle(nanoseconds); }
    // asking takes bus time itself
    [[nodiscard]] std::uint64_t questionPauseNs() const override { return 0; }

private:
    std::shared_ptr<sim::machine> m_machine;
    std::shared_ptr<sim::bus> m_wires;
    busIdentity m_identity;
    unsigned long m_functions; ///< I2C_FUNC_...
};

/// @param[out] about  of the folder. @return 0, or why no machine can be opened there
int checkFolder(const std::filesystem::path& folder, struct stat& about)
{
    // empty: no machine is configured, so there is no such bus
    if (folder.empty()) {
        return ENOENT;
    }
    if (stat(folder.c_str(), &about) != 0) {
        return isShortage(errno) ? ENOMEM : errno == EACCES ? EACCES : ENOENT;
    }
    return access(folder.c_str(), R_OK | W_OK | X_OK) == 0 ? 0 : EACCES;
}

/// The errno of a machine that the system did not let open.
int errnoOfMachine(int error)
{
    if (error == EACCES || error == EPERM || error == EROFS) {
        return EACCES;
    }
    return isShortage(error) ? ENOMEM : ENODEV;
}

} // namespace

int openSimulatedBus(const std::filesystem::path& machineFolder, bool realTime, const std::string& name,
                     const std::string& node, std::shared_ptr<bus>& opened)
{
    struct stat folder {
    };
    if (const int error = checkFolder(machineFolder, folder)) {
        return error;
    }
    try {
        std::shared_ptr<sim::machine> machine = sim::openMachine(machineFolder, realTime);
        std::shared_ptr<sim::bus> wires = machine->findBus(name, node);
        if (wires == nullptr) {
            return ENOENT;
        }
        busIdentity identity{.folder = machine->folder(),
                             .name = "iic." + (node.empty() ? "" : fileNameSafe(node) + ".") + fileNameSafe(name),
                             .mode = folder.st_mode & 0666U,
                             .group = folder.st_gid,
                             .text = "sim:" + name,
                             .owner = folder.st_uid};
        opened = std::make_shared<simulatedBus>(std::move(machine), std::move(wires), std::move(identity));
        return 0;
    } catch (const std::system_error& failure) {
        return errnoOfMachine(failure.code().value());
    } catch (const std::runtime_error&) {
        // the folder is there, but no machine can be made of it
        return ENODEV;
    }
}

std::vector<std::string> simulatedBusNames(const std::filesystem::path& machineFolder, bool realTime,
                                           const std::string& node)
{
    if (machineFolder.empty()) {
        return {};
    }
    try {
        return sim::openMachine(machineFolder, realTime)->busNames(node);
    } catch (const std::runtime_error&) {
        return {};
    }
}

} // namespace kest::host::iic
