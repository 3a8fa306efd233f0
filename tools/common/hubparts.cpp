#include "tools/common/hubparts.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <fmt/core.h>
#include <optional>

#include "tools/common/advice.h"
#include "tools/common/hublock.h"
#include "tools/common/memoryparts.h"
#include "tools/common/offsetreads.h"

namespace kest::tools
{
namespace
{

constexpr std::uint8_t ports = 8;
constexpr std::size_t askedBytes = 16;

enum hubStatus : std::uint8_t {
    statusDone = 0,
    statusMalformed = 1, ///< the device is there, and takes another number of offset bytes
    statusNoAnswer = 2,
};

/// How one question to a port ended.
enum class portAnswer : std::uint8_t {
    present,
    absent,
    trouble, ///< of the port, or of the hub
};

class hubSearcher
{
public:
    hubSearcher(const busName& bus, std::uint8_t address, const partAsking& asking)
        : m_bus(bus), m_hub({.address = address, .type = findType(KEST_DEV_922HUB)}), m_asking(asking)
    {
    }

    /// @return false when the hub itself does not go on
    bool askPort(std::uint8_t port);
    /// Takes the status that the hub has from earlier. @return empty; or what goes on with the hub's note: why it can't
    /// be asked
    [[nodiscard]] std::string begin();
    [[nodiscard]] const std::string& trouble() const { return m_trouble; }
    [[nodiscard]] std::vector<foundPart>& parts() { return m_parts; }

private:
    static constexpr std::uint8_t firstMemory = 0xA0;
    static constexpr std::uint8_t lastMemory = 0xAE;

    /// No longer than others are waited for.
    [[nodiscard]] std::chrono::nanoseconds hubWait() const
    {
        return std::chrono::nanoseconds(std::min<std::uint64_t>(
            m_asking.waitNs, static_cast<std::uint64_t>(std::chrono::nanoseconds(usualHubWait).count())));
    }
    [[nodiscard]] device deviceAt(std::uint8_t port, std::uint8_t address) const;
    [[nodiscard]] portAnswer ask(std::uint8_t port, std::uint8_t address, bool& hubGoesOn);

    const busName& m_bus;
    deviceLink m_hub;
    const partAsking& m_asking;
    std::string m_trouble;
    std::vector<foundPart> m_parts;
};

device hubSearcher::deviceAt(std::uint8_t port, std::uint8_t address) const
{
    device which;
    which.bus = m_bus.path;
    which.node = m_bus.node;
    which.links = {m_hub, {.address = address, .type = findType(KEST_DEV_SEEPROM_2K)}};
    which.links.front().port = port;
    return which;
}

std::string hubSearcher::begin()
{
    const hubLock lock(m_bus, m_hub.address, hubWait());
    if (lock.error() != 0) {
        return "; what is behind it was not asked: " + adviceFor(lock.error(), m_bus).what;
    }
    const bool answers = offsetReads(deviceAt(0, firstMemory), m_asking.speedKhz).clearStatus();
    return answers ? "" : "; but it does not answer as one";
}

// Only for the question itself: a proof takes the lock of its operation, and then that of the hub.
portAnswer hubSearcher::ask(std::uint8_t port, std::uint8_t address, bool& hubGoesOn)
{
    offsetReads reads(deviceAt(port, address), m_asking.speedKhz);
    const hubLock lock(m_bus, m_hub.address, hubWait());
    if (lock.error() != 0) {
        hubGoesOn = false;
        m_trouble = fmt::format("from port {} on it was not asked: {}", port, adviceFor(lock.error(), m_bus).what);
        return portAnswer::trouble;
    }
    std::array<std::uint8_t, askedBytes> bytes{};
    const std::uint8_t start = 0;
    const std::optional<std::uint8_t> status = reads.readStatus({&start, 1}, bytes);
    hubGoesOn = status && (*status == statusDone || reads.clearStatus());
    if (!hubGoesOn) {
        m_trouble = fmt::format("it stopped answering at port {}", port);
        return portAnswer::trouble;
    }
    if (*status == statusDone || *status == statusMalformed) {
        return portAnswer::present;
    }
    if (*status == statusNoAnswer) {
        return portAnswer::absent;
    }
    m_trouble += fmt::format("{}port {} is left out, with status {}", m_trouble.empty() ? "" : "; ", port, *status);
    return portAnswer::trouble;
}

bool hubSearcher::askPort(std::uint8_t port)
{
    memoryProofs proofs;
    bool hubGoesOn = true;
    for (unsigned address = firstMemory; address <= lastMemory; address += 2) {
        const portAnswer answer = ask(port, static_cast<std::uint8_t>(address), hubGoesOn);
        if (answer == portAnswer::trouble) {
            return hubGoesOn;
        }
        if (answer == portAnswer::present) {
            foundPart part{.way = {m_hub}, .address = static_cast<std::uint8_t>(address)};
            part.way.front().port = port;
            proofs.judge(m_bus, part, m_asking);
            m_parts.push_back(std::move(part));
        }
    }
    return true;
}

} // namespace

std::vector<foundPart> findPartsBehind(const busName& bus, std::uint8_t address, const partAsking& asking)
{
    foundPart hub{.address = address, .note = "a 922 hub, as --hubs says"};
    hubSearcher search(bus, address, asking);
    if (const std::string trouble = search.begin(); !trouble.empty()) {
        hub.note += trouble;
        return {hub};
    }
    std::uint8_t port = 0;
    while (port < ports && search.askPort(port)) {
        ++port;
    }
    hub.note += search.trouble().empty() ? "; each memory address was asked at ports 0 to 7" : "; " + search.trouble();
    std::vector<foundPart> parts{hub};
    parts.insert(parts.end(), search.parts().begin(), search.parts().end());
    return parts;
}

} // namespace kest::tools
