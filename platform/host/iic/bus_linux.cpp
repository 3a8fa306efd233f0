#include "platform/host/iic/bus_linux.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/sysmacros.h>

#include "base/fork.h"
#include "platform/host/iic/adapter.h"
#include "platform/host/iic/smbus.h"
#include "platform/host/iic/systemcalls.h"

namespace kest::host::iic
{

namespace
{

// leaves the bus to others between two questions to a busy device
constexpr std::uint64_t pauseNs = 200'000;
constexpr unsigned long timeoutUnitMs = 10;
// the kernel's own, for adapters that set none; the kernel does not tell it
constexpr unsigned long usualTimeout = 100;
// the kernel's nodes of adapters; the minor is the adapter's number
constexpr unsigned int adapterMajor = 89;
// where the adapter's own is not known: every device on a bus can do it
constexpr std::uint64_t usualClockHz = 100'000;

struct errnoRow {
    int error;
    outcome end;
};
constexpr std::array errnoRows{
    errnoRow{.error = ENXIO, .end = outcome::notAcknowledged},
    errnoRow{.error = EREMOTEIO, .end = outcome::notAcknowledged},
    errnoRow{.error = ETIMEDOUT, .end = outcome::timedOut},
    errnoRow{.error = ETIME, .end = outcome::timedOut},
    errnoRow{.error = EBUSY, .end = outcome::busBusy},
    errnoRow{.error = EAGAIN, .end = outcome::arbitrationLost},
    errnoRow{.error = EINTR, .end = outcome::interrupted},
    errnoRow{.error = ENODEV, .end = outcome::gone},
    errnoRow{.error = ESHUTDOWN, .end = outcome::gone},
    errnoRow{.error = ENOENT, .end = outcome::gone},
    errnoRow{.error = EBADF, .end = outcome::gone},
    errnoRow{.error = EOPNOTSUPP, .end = outcome::notSupported},
    errnoRow{.error = ENOTTY, .end = outcome::notSupported},
    errnoRow{.error = ENOSYS, .end = outcome::notSupported},
    errnoRow{.error = EACCES, .end = outcome::notPermitted},
    errnoRow{.error = EPERM, .end = outcome::notPermitted},
    errnoRow{.error = ENOMEM, .end = outcome::noMemory},
    errnoRow{.error = EMFILE, .end = outcome::noMemory},
    errnoRow{.error = ENFILE, .end = outcome::noMemory},
};

outcome endOf(int error)
{
    const auto* row = std::ranges::find(errnoRows, error, &errnoRow::error);
    return row == errnoRows.end() ? outcome::failed : row->end;
}

/// How a transaction ends that could not open the node. ENXIO then says that the node has no adapter, and nothing about
/// a device.
outcome endOfOpen(int error) { return error == ENXIO ? outcome::gone : endOf(error); }

/// An adapter's node, open.
struct adapterNode {
    int descriptor = -1;
    unsigned long functions = 0;
    std::uint32_t clockHz = 0; ///< 0: not known
    std::uint32_t forks = 0; ///< behind the process that opened it
    struct stat about {
    };
    /// The kernel's number of the adapter; a path may call it otherwise.
    [[nodiscard]] std::optional<unsigned int> number() const
    {
        return major(about.st_rdev) == adapterMajor ? std::optional(minor(about.st_rdev)) : std::nullopt;
    }
};

class linuxBus final : public bus
{
public:
    linuxBus(systemCalls& calls, std::string path, bool setsTimeout)
        : m_calls(calls), m_path(std::move(path)), m_setsTimeout(setsTimeout)
    {
    }
    linuxBus(const linuxBus&) = delete;
    linuxBus& operator=(const linuxBus&) = delete;
    ~linuxBus() override { close(m_node); }

    /// Opens the node anew, and keeps the open one, if any, when that fails.
    /// @return 0 or an errno
    int open();
    void identify(const std::filesystem::path& lockFolder);

    transferResult transfer(std::span<const segment> segments, const transferPace& pace) override;
    transferResult probe(std::uint8_t address, probeMethod method, const transferPace& pace) override;
    outcome reset(std::uint8_t address) override;

    [[nodiscard]] transferLimits limits() const override { return limitsOf(m_node.functions); }
    [[nodiscard]] std::uint64_t clockHz(const transferPace& pace) const override;
    [[nodiscard]] const busIdentity& identity() const override { return m_identity; }
    [[nodiscard]] std::string adapterName() const override;
    [[nodiscard]] std::vector<std::string> capabilities() const override { return functionTexts(m_node.functions); }
    [[nodiscard]] std::vector<std::string> lacks() const override { return lackTexts(m_node.functions); }
    [[nodiscard]] std::optional<unsigned int> kernelNumber() const override { return m_node.number(); }

    bool heldByDriver(std::uint8_t address) override;
    std::uint64_t nowNs() override { return m_calls.nowNs(); }
    void pause(std::uint64_t nanoseconds) override { m_calls.pause(nanoseconds); }
    [[nodiscard]] std::uint64_t questionPauseNs() const override { return pauseNs; }

private:
    [[nodiscard]] bool takesMessages() const { return hasFunctions(m_node.functions, I2C_FUNC_I2C); }
    template <typename Pointee>
    int control(const adapterNode& node, unsigned long request, Pointee* argument)
    {
        return m_calls.control(node.descriptor, request, reinterpret_cast<std::uintptr_t>(argument));
    }
    int examine(adapterNode& node);
    void close(adapterNode& node);
    int makeOwn();
    transferResult transferMessages(std::span<const segment> segments);
    transferResult transferSmbus(std::span<const segment> segments);
    transferResult runSmbus(smbusCall& call);

    systemCalls& m_calls;
    std::string m_path;
    bool m_setsTimeout;
    adapterNode m_node;
    busIdentity m_identity{};
};

int linuxBus::open()
{
    adapterNode fresh{.descriptor = m_calls.openNode(m_path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY),
                      .forks = forksBehind()};
    const int error = fresh.descriptor < 0 ? errno : examine(fresh);
    if (error != 0) {
        close(fresh);
        return error;
    }
    close(m_node);
    m_node = fresh;
    return 0;
}

/// Whether an open node is an adapter, and what it can do. @return 0 or an errno
int linuxBus::examine(adapterNode& node)
{
    if (m_calls.statNode(node.descriptor, node.about) != 0) {
        return errno;
    }
    if (!S_ISCHR(node.about.st_mode)) {
        // something else stands where the bus should
        return ENOENT;
    }
    if (control(node, I2C_FUNCS, &node.functions) != 0) {
        return errno;
    }
    const std::optional<unsigned int> number = node.number();
    node.clockHz = number ? m_calls.adapterClockHz(*number) : 0;
    return 0;
}

void linuxBus::close(adapterNode& node)
{
    if (node.descriptor >= 0) {
        m_calls.closeNode(node.descriptor);
        node.descriptor = -1;
    }
}

/// The target of SMBus calls belongs to the open file, which a forked child has in common with its parent: before its
/// first use the child opens one of its own. @return 0 or an errno
int linuxBus::makeOwn() { return m_node.forks == forksBehind() ? 0 : open(); }

void linuxBus::identify(const std::filesystem::path& lockFolder)
{
    m_identity = {.folder = lockFolder,
                  .name = "i2c-" + std::to_string(major(m_node.about.st_rdev)) + "-" +
                          std::to_string(minor(m_node.about.st_rdev)),
                  .mode = m_node.about.st_mode & 0666U,
                  .group = m_node.about.st_gid,
                  .text = m_path};
}

std::string linuxBus::adapterName() const
{
    const std::optional<unsigned int> number = m_node.number();
    return number ? m_calls.adapterName(*number) : std::string{};
}

std::uint64_t linuxBus::clockHz(const transferPace& pace) const
{
    const std::uint64_t own = m_node.clockHz != 0 ? m_node.clockHz : usualClockHz;
    const std::uint64_t asked = std::uint64_t{1000} * pace.speedKhz;
    return asked == 0 ? own : std::min(asked, own);
}

transferResult linuxBus::transfer(std::span<const segment> segments, const transferPace& pace)
{
    if (const outcome end = checkSegments(segments, m_node.functions); end != outcome::done) {
        return {.end = end, .nowNs = m_calls.nowNs()};
    }
    const bool changesTimeout = m_setsTimeout && pace.timeoutMs != 0;
    if (changesTimeout) {
        const unsigned long units = pace.timeoutMs / timeoutUnitMs + (pace.timeoutMs % timeoutUnitMs != 0 ? 1 : 0);
        m_calls.control(m_node.descriptor, I2C_TIMEOUT, units);
    }
    transferResult result = takesMessages() ? transferMessages(segments) : transferSmbus(segments);
    if (changesTimeout) {
        m_calls.control(m_node.descriptor, I2C_TIMEOUT, usualTimeout);
    }
    result.nowNs = m_calls.nowNs();
    return result;
}

transferResult linuxBus::transferMessages(std::span<const segment> segments)
{
    std::array<i2c_msg, I2C_RDWR_IOCTL_MAX_MSGS> messages{};
    std::size_t count = 0;
    for (const segment& part : segments) {
        i2c_msg& message = messages.at(count++);
        message.addr = static_cast<std::uint16_t>(part.address >> 1);
        message.flags = static_cast<std::uint16_t>(part.way == direction::read ? I2C_M_RD : 0);
        message.len = static_cast<std::uint16_t>(part.bytes.size());
        message.buf = part.bytes.data();
    }
    i2c_rdwr_ioctl_data request{.msgs = messages.data(), .nmsgs = static_cast<std::uint32_t>(count)};
    const int moved = control(m_node, I2C_RDWR, &request);
    if (moved < 0) {
        const outcome end = endOf(errno);
        // an adapter that takes less than the kernel passes on refuses before it sends anything
        return {.end = end == outcome::notSupported ? outcome::tooLong : end};
    }
    return {.end = static_cast<std::size_t>(moved) == count ? outcome::done : outcome::shortTransfer};
}

transferResult linuxBus::transferSmbus(std::span<const segment> segments)
{
    std::optional<smbusCall> call = smbusCallFor(segments, m_node.functions);
    if (!call) {
        return {.end = outcome::notSupported};
    }
    const transferResult result = runSmbus(*call);
    const bool whole = takeData(*call, segments.back());
    return result.end == outcome::done && !whole ? transferResult{.end = outcome::shortTransfer} : result;
}

/// As for messages, an address that a kernel driver holds may be used all the same.
transferResult linuxBus::runSmbus(smbusCall& call)
{
    i2c_smbus_ioctl_data request{
        .read_write = static_cast<std::uint8_t>(call.way == direction::read ? I2C_SMBUS_READ : I2C_SMBUS_WRITE),
        .command = call.command,
        .size = call.kind,
        .data = call.hasData ? &call.data : nullptr};
    if (const int error = makeOwn()) {
        return {.end = endOfOpen(error)};
    }
    const bool done = m_calls.control(m_node.descriptor, I2C_SLAVE_FORCE, call.address >> 1U) == 0 &&
                      control(m_node, I2C_SMBUS, &request) >= 0;
    return {.end = done ? outcome::done : endOf(errno)};
}

transferResult linuxBus::probe(std::uint8_t address, probeMethod method, const transferPace& pace)
{
    return askAddress(*this, address, method, m_node.functions, pace);
}

/// A kernel's bus has no clocks to send by hand. Opening the adapter anew forgets what was set on it, and its driver
/// frees a held bus, if it can, when the next message finds it held.
outcome linuxBus::reset(std::uint8_t address)
{
    if (const int error = open()) {
        return endOfOpen(error);
    }
    if (address == 0) {
        return outcome::done;
    }
    const outcome answer = probe(address, probeMethod::safe, {}).end;
    const bool alive = answer == outcome::addressNotAcknowledged || answer == outcome::notSupported;
    return alive ? outcome::done : answer;
}

bool linuxBus::heldByDriver(std::uint8_t address)
{
    return makeOwn() == 0 && m_calls.control(m_node.descriptor, I2C_SLAVE, address >> 1U) != 0 && errno == EBUSY;
}

/// The errno of a failed open: ENOENT when there is no such node, else that of a transaction that ends so.
/// @param error  not 0
int openErrno(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
    case ENAMETOOLONG:
        return ENOENT;
    default:
        return errnoOf(endOfOpen(error));
    }
}

} // namespace

int openLinuxBus(const std::string& pathPrefix, unsigned int number, const std::filesystem::path& lockFolder,
                 bool setAdapterTimeout, std::shared_ptr<bus>& opened)
{
    auto made = std::make_shared<linuxBus>(chosenSystemCalls(), pathPrefix + "/dev/i2c-" + std::to_string(number),
                                           setAdapterTimeout);
    if (const int error = made->open()) {
        return openErrno(error);
    }
    made->identify(lockFolder);
    opened = std::move(made);
    return 0;
}

} // namespace kest::host::iic
