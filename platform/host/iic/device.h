/// An open device: the state behind a handle.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/host/iic/bus.h"
#include "platform/host/iic/ffdc.h"
#include "platform/host/iic/locks.h"
#include "platform/host/iic/transfer.h"
#include "platform/mern.h"

namespace kest::host::iic
{

/// The configuration block, item 19: host byte order.
class configurationBlock
{
public:
    static constexpr std::size_t bytes = 44;

    /// The state at open: nothing set but a wait for a busy bus.
    configurationBlock();
    /// @return false, and nothing is changed, when a field has no meaning
    bool set(const std::uint8_t* block);
    void get(std::uint8_t* block) const;

    [[nodiscard]] std::uint16_t speedKhz() const { return field<std::uint16_t>(0); }
    [[nodiscard]] std::uint16_t address() const { return field<std::uint16_t>(2); }
    [[nodiscard]] std::uint16_t offsetLength() const { return field<std::uint16_t>(4); }
    [[nodiscard]] std::uint32_t timeoutMs() const { return field<std::uint32_t>(12); }
    [[nodiscard]] std::uint16_t writeCycleMs() const { return field<std::uint16_t>(20); }
    [[nodiscard]] std::uint32_t pageSize() const { return field<std::uint32_t>(24); }
    [[nodiscard]] std::uint32_t busyWaitMs() const { return field<std::uint32_t>(40); }

private:
    template <typename Value>
    [[nodiscard]] Value field(std::size_t offset) const;

    std::array<std::uint8_t, bytes> m_bytes{};
};

/// What a call answers: its result and, for a failed one, its errno.
struct callResult {
    int value = 0;
    int error = 0;
    std::uint32_t length = 0; ///< bytes asked for, of a transfer
    const char* silence = "";
};

/// Not for use by two threads at once: whoever works with it holds `mutex`.
class device
{
public:
    device(std::shared_ptr<bus> wires, std::uint8_t target);

    callResult configure(int direction, std::uint32_t item, std::uint8_t* value, unsigned int size);
    callResult seek(long offset, int whence);
    callResult read(std::uint8_t* buffer, unsigned int size);
    callResult write(const std::uint8_t* buffer, unsigned int size);
    callResult reset(int kind);
    callResult extractFirstFailure(int reserved, void** data);
    callResult dropFirstFailure(int reserved);

    /// Keeps a failed call as first-failure data.
    void keepFailure(const char* operation, const callResult& result);

    [[nodiscard]] std::uint8_t target() const { return m_target; }
    [[nodiscard]] std::uint32_t position() const { return m_position; }
    [[nodiscard]] const bus& wires() const { return *m_wires; }

    /// Lets go of the locks, though another thread may still hold the object.
    void close();
    [[nodiscard]] bool isClosed() const { return m_closed; }

    std::mutex mutex;

private:
    callResult lock(const std::uint8_t* record, bool take);
    [[nodiscard]] callResult setTarget(std::uint32_t address);
    [[nodiscard]] callResult setBlock(const std::uint8_t* block);
    [[nodiscard]] transferSettings settings();
    callResult finishTransfer(const transferReport& report, bool read, unsigned int size);

    std::shared_ptr<bus> m_wires;
    transferLimits m_adapterTakes; ///< at once, as far as transfers have shown
    configurationBlock m_block;
    std::optional<std::uint32_t> m_speedKhz; ///< item 2, once set
    std::uint32_t m_dmaOption = 0;
    std::uint8_t m_target;
    std::uint32_t m_position = 0;
    addressLocks m_locks;
    transactionHistory m_history;
    bool m_closed = false;
};

} // namespace kest::host::iic
