/// Reads of a memory part behind given offset bytes, on the bus itself or through a hub: plain transactions that leave
/// no error entry and no first-failure data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/host/iic/tools.h"
#include "tools/common/devicetext.h"
#include "tools/common/hublock.h"
#include "tools/common/widthreads.h"

namespace kest::tools
{

class offsetReads
{
public:
    /// Opens the bus. @param speedKhz  0 the library's default
    offsetReads(const device& which, std::uint32_t speedKhz);

    /// Why no such read works there, as far as it is known beforehand; empty when they do.
    [[nodiscard]] std::string trouble() const;
    /// Bytes that one read takes at most.
    [[nodiscard]] std::size_t mostBytes() const;

    /// Behind a hub: keeps others off it until the object ends. A hub keeps a status between transfers, so that those
    /// of a proof belong together. No transfer of the library through this hub works meanwhile. Null without a hub.
    [[nodiscard]] std::unique_ptr<hubLock> holdHub() const;

    /// Reads the part. A status of a hub other than 0 is taken from it. Behind one offset byte it waits for the end of
    /// a write cycle; behind two it does not, because each attempt could write a byte.
    readEnd read(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into);
    /// Reads the start of the part at another address of the same bus or sub-bus.
    /// @return false when nothing answers, or a kernel driver has the address
    bool readOther(std::uint8_t address, std::span<std::uint8_t> into);

    /// Through a hub: the status ahead of the data. Nothing when the read failed.
    /// @param into  the part's bytes; fewer are read where the adapter takes no more
    std::optional<std::uint8_t> readStatus(std::span<const std::uint8_t> offset, std::span<std::uint8_t> into);
    /// Takes a status from the hub, which then goes on.
    bool clearStatus();

    [[nodiscard]] bool behindHub() const { return m_device.behindHub(); }
    /// Reads so far, also those that failed or took a status from a hub.
    [[nodiscard]] unsigned count() const { return m_count; }
    /// errno of the latest read that failed; 0 when none did
    [[nodiscard]] int error() const { return m_error; }

private:
    [[nodiscard]] readEnd endOf(const host::iic::exchangeResult& result);
    [[nodiscard]] readEnd readAt(std::uint8_t address, std::span<const std::uint8_t> offset,
                                 std::span<std::uint8_t> into, bool waits);
    [[nodiscard]] readEnd readThroughHub(std::uint8_t address, std::span<const std::uint8_t> offset,
                                         std::span<std::uint8_t> into, std::uint8_t& status);

    const device m_device;
    std::uint32_t m_speedKhz;
    std::unique_ptr<host::iic::toolBus> m_bus; ///< null when it can't be opened
    int m_error = 0;
    unsigned m_count = 0;
};

} // namespace kest::tools
