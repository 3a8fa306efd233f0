/// Devices as users name them: device texts, and names and numbers of the device table.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "platform/host/configuration/settings.h"
#include "tools/common/devicetext.h"

namespace kest::tools
{

/// Whether a text is a device text, in the canonical or the field's form, and no name.
[[nodiscard]] bool isDeviceText(const std::string& text);

/// The names of the device table.
[[nodiscard]] std::vector<std::string> deviceNames();

/// Finds a device by its name or number in the device table, or takes a device text in the canonical or the field's
/// form.
/// Throws a `failure`: 2 for a malformed text, 4 for a name or number that the table does not have.
[[nodiscard]] device findDevice(const std::string& nameOrText);

/// Persisted copies are kept by device number alone. When several rows of the table share a number, the copy belongs to
/// the one with the lowest position.
[[nodiscard]] bool copyIsItsOwn(const device& which);
/// Throws a `failure` (exit code 2) when the copy under the device's number belongs to another device.
void refuseForeignCopy(const device& which);

/// Refuses a device text that has another type than the device table, for the device itself or for a hub before it: a
/// transfer by the wrong type, even a read, can change a byte of the part that is there. A device that was named by its
/// name or number is never refused. Throws a `failure` (exit code 3).
/// @param force  takes the type of the text
void refuseOtherType(const device& which, bool force);

/// What the device table expects at a device's place, of whatever name.
[[nodiscard]] std::vector<host::expectedBytes> expectedAt(const device& which);

/// The format that the device table expects of the contents at a device's place, of whatever name; empty: none.
[[nodiscard]] std::string expectedFormatAt(const device& which);

/// Whether the device table says that the offset width of the device's type is right.
[[nodiscard]] bool isWidthProved(const device& which);

/// A bus named by its path, as i2c-N unless a device of the table has that name, or by a device text or name on it.
/// Throws as findDevice().
/// @param node  of the bus, in place of the device's; empty keeps the device's
[[nodiscard]] busName findBus(const std::string& pathOrDevice, const std::string& node = {});

/// Throws a `failure` (exit code 2) for chains that no transfer can serve: anything behind a 0xF0 hub, a register
/// device, sensor or 0x172 device behind a 922 hub.
void refuseUnservedChain(const device& which);

/// Throws a `failure` (exit code 2) unless the end device is of one of the kinds. @param verb  "port read"
void requireKind(const device& which, std::initializer_list<deviceKind> kinds, const std::string& verb);

} // namespace kest::tools
