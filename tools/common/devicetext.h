/// Device texts: which bus, which way through hubs, which device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/devicetype.h"

namespace kest::tools
{

/// Speed of the library's transfers unless attributes give another.
constexpr std::uint32_t libraryKhz = 400;

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
    bool named = false; ///< by its name or number in the table, whose type is then certain
    std::string label; ///< as the user named it; for messages
    std::string text; ///< device text
    std::string bus; ///< device path without an address
    std::string node;
    std::vector<deviceLink> links;
    /// Of the transfers, kHz; a diagnosis asks the device at the same speed. 0: the bus's own.
    std::uint32_t speedKhz = libraryKhz;

    [[nodiscard]] const deviceLink& end() const { return links.back(); }
    [[nodiscard]] const deviceLink& head() const { return links.front(); }
    [[nodiscard]] bool behindHub() const { return links.size() > 1; }
};

/// Reads a device text: PATH,NODE,TYPE,ADDRESS or, through hubs, PATH,NODE,HUBTYPE,ADDRESS,PORT,...,TYPE,ADDRESS.
/// Types, addresses and ports are hexadecimal. Throws a `failure` (exit code 2) that names the field and what was
/// expected.
[[nodiscard]] device parseDeviceText(const std::string& text);

/// Device texts are at most this long.
constexpr std::size_t longestDeviceText = 255;

/// What is wrong with the end of a chain, as the end of a sentence about it; empty when nothing is.
/// @param links  not empty; without the last one the chain is valid
[[nodiscard]] std::string chainComplaint(const std::vector<deviceLink>& links);

/// The device text of a chain: "sim:planar,L,922,80,3,2C0128,A2".
[[nodiscard]] std::string deviceText(const std::string& bus, const std::string& node,
                                     const std::vector<deviceLink>& links);

/// A bus as texts and users name it.
struct busName {
    std::string path; ///< "sim:planar", "/dev/i2c-1"
    std::string node = "L"; ///< L for the local one, or 0 to 7
};

/// Whether `path` is a bus's path, without an address. @param[out] why  what is wrong with it
[[nodiscard]] bool isBusPath(const std::string& path, std::string& why);

/// "L" is -1, "0" to "7" are themselves.
[[nodiscard]] std::int32_t nodeNumber(const std::string& node);

/// Whether the node is the local one.
[[nodiscard]] bool isLocal(const std::string& node);

/// The device text with the address that detection is to probe in its path: "sim:planar@A0,L,2C0256,A0".
[[nodiscard]] std::string detectionText(const device& which);

} // namespace kest::tools
