/// Devices as users name them: device texts and names of the device table.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "kest/address.h"

namespace kest::tools
{

enum class deviceKind : std::uint8_t {
    hub,
    seeprom,
    registers, ///< LED drivers and I/O expanders
    sensor,
    other
};

/// One device type of the device texts.
struct deviceTypeInfo {
    kest_deviceType type;
    const char* code; ///< as a device text has it
    const char* chip; ///< for people
    deviceKind kind;
    std::uint32_t bytes; ///< capacity, as far as it is read like a SEEPROM
    std::uint32_t pageBytes; ///< of a SEEPROM
    unsigned pins; ///< of a register device or sensor
};
[[nodiscard]] std::span<const deviceTypeInfo> deviceTypes();
/// @return null for an unknown type
[[nodiscard]] const deviceTypeInfo* findType(std::uint32_t type);
/// @return the chip with its article: "an LM75"
[[nodiscard]] std::string aChip(const deviceTypeInfo& type);

struct deviceLink {
    std::uint8_t address = 0; ///< 8-bit form
    const deviceTypeInfo* type = nullptr;
    std::uint8_t port = 0; ///< of a hub
};

/// A device that a program works on. Its text has been checked: path, node, types, addresses and the order of the
/// chain.
struct device {
    std::uint32_t number = 0; ///< 0 for a device that the table does not have
    std::uint32_t position = 0;
    std::string label; ///< as the user named it; for messages
    std::string text; ///< device text
    std::string bus; ///< device path without an address
    std::string node;
    std::vector<deviceLink> links;

    [[nodiscard]] const deviceLink& end() const { return links.back(); }
    [[nodiscard]] const deviceLink& head() const { return links.front(); }
    [[nodiscard]] bool behindHub() const { return links.size() > 1; }
};

/// Reads a device text: PATH,NODE,TYPE,ADDRESS or, through hubs, PATH,NODE,HUBTYPE,ADDRESS,PORT,...,TYPE,ADDRESS.
/// Types, addresses and ports are hexadecimal. Throws a `failure` (exit code 2) that names the field and what was
/// expected.
[[nodiscard]] device parseDeviceText(const std::string& text);

/// Finds a device by its name or number in the device table, or takes a device text.
/// Throws a `failure`: 2 for a malformed text, 4 for a name or number that the table does not have.
[[nodiscard]] device findDevice(const std::string& nameOrText);

/// Persisted copies are kept by device number alone: of rows of the table with one number, the copy is that of the
/// lowest position.
[[nodiscard]] bool copyIsItsOwn(const device& which);
/// Throws a `failure` (exit code 2) when the copy under the device's number is another's.
void refuseForeignCopy(const device& which);

/// A device of the device table that is of another type and yet at the same place: one of the two is wrong. Nothing
/// when there is none.
[[nodiscard]] std::optional<device> otherTypeAt(const device& which);

/// A bus named by path ("sim:planar", "/dev/i2c-1"), or by a device text or name on it. Throws as findDevice().
struct busName {
    std::string path;
    std::string node = "L";
};
[[nodiscard]] busName findBus(const std::string& pathOrDevice);
/// Whether `path` is a bus's path, without an address. @param[out] why  what is wrong with it
[[nodiscard]] bool isBusPath(const std::string& path, std::string& why);

/// Throws a `failure` (exit code 2) for chains that no transfer can serve: anything behind a 0xF0 hub, a register
/// device, sensor or 0x172 device behind a 922 hub.
void refuseUnservedChain(const device& which);

/// Throws a `failure` (exit code 2) unless the end device is of one of the kinds. @param verb  "port read"
void requireKind(const device& which, std::initializer_list<deviceKind> kinds, const std::string& verb);

/// The device text with the address that detection is to probe in its path: "sim:planar@A0,L,2C0256,A0".
[[nodiscard]] std::string detectionText(const device& which);

/// When the address looks like one given in the wrong form, because a device answers at its double or half: what to
/// write instead. Probes those of the two where a device of this type can be. Empty when nothing answers there, too.
[[nodiscard]] std::string wrongFormHint(const device& which);

} // namespace kest::tools
