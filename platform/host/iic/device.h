/// An open device: the state behind a handle.
#pragma once

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

/// What a call returns, and what is known about its failure.
struct callResult {
    int value = 0;
    int error = 0; ///< errno; 0 when it did not fail
    std::uint32_t length = 0; ///< bytes asked for, of a transfer
    const char* silence = silenceNone;
    const char* lacks = lacksNothing;
};

/// Not for use by two threads at once: a thread that works with it holds `mutex`.
class device
{
public:
    device(std::shared_ptr<bus> wires, std::uint8_t target);

    callResult configure(int way, std::uint32_t item, std::uint8_t* value, unsigned int size);
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
    callResult setNumber(std::uint32_t item, std::uint32_t number);
    callResult getNumber(std::uint32_t item, std::uint8_t* value);
    callResult detect(std::uint8_t* value);
    callResult lock(const std::uint8_t* record, bool take);
    [[nodiscard]] callResult setTarget(std::uint32_t address);
    [[nodiscard]] callResult setBlock(const std::uint8_t* block);
    [[nodiscard]] transferSettings settings();
    callResult finishTransfer(const transferReport& report, direction way, unsigned int size);

    std::shared_ptr<bus> m_wires;
    transferLimits m_adapterTakes; ///< at once, as far as transfers have shown
    mern_iic_block m_block{}; ///< as it was set; at open nothing but a wait for a busy bus
    std::optional<std::uint32_t> m_speedKhz; ///< item 2, once set
    std::uint32_t m_dmaOption = 0;
    std::uint8_t m_target;
    std::uint32_t m_position = 0;
    addressLocks m_locks;
    transactionHistory m_history;
    bool m_closed = false;
};

} // namespace kest::host::iic
