#include "tools/kestd/devices.h"

#include <algorithm>
#include <fmt/core.h>

#include "platform/host/configuration/deviceplace.h"
#include "platform/host/iic/paths.h"
#include "tools/common/devicetext.h"
#include "tools/common/failure.h"

namespace kest::service
{
namespace
{

/// The library settles its read mode by the same words.
byteSource sourceOf(const host::configuration& settings)
{
    const auto mode = settings.registry.find("tavo/ReadMode");
    if (mode == settings.registry.end()) {
        return byteSource::hardware;
    }
    return mode->second.starts_with("FileMode")    ? byteSource::copy
           : mode->second.starts_with("MixedMode") ? byteSource::mixed
                                                   : byteSource::hardware;
}

} // namespace

deviceDirectory::deviceDirectory(const host::configuration& settings)
    : m_nodes(settings.nodes), m_source(sourceOf(settings)),
      m_hasNumberZero(std::ranges::find(settings.devices, 0U, &host::deviceEntry::number) != settings.devices.end())
{
    for (const host::deviceEntry& device : settings.devices) {
        if (auto named = understand(device.location)) {
            const auto row = m_rows.try_emplace(std::move(named->place), tableRow{device.location, named->bytes}).first;
            m_texts.try_emplace(device.location, row->second);
        }
    }
}

std::optional<namedDevice> deviceDirectory::understand(const std::string& text) const
{
    tools::device device;
    host::iic::devicePath path;
    // the local node: no path prefix, and the machine's local buses
    host::nodeMapping node;
    try {
        device = tools::parseDeviceText(text);
    } catch (const tools::failure&) {
        return std::nullopt;
    }
    if (host::iic::parseDevicePath(device.bus, path) != 0) {
        return std::nullopt;
    }
    if (device.node != "L" && device.node != "l") {
        node = m_nodes.at(static_cast<std::size_t>(device.node[0] - '0'));
        if (path.simulated ? node.simNode.empty() : node.pathPrefix.empty()) {
            return std::nullopt;
        }
    }
    namedDevice named;
    for (const host::placedType& each : host::placesOf(text, m_nodes)) {
        named.place += fmt::format("{}\n{:X}\n", each.place, each.type);
    }
    named.bytes = device.end().type->bytes;
    return named;
}

const deviceDirectory::tableRow* deviceDirectory::find(std::string_view text) const
{
    // most clients name a device as the table does
    if (const auto same = m_texts.find(text); same != m_texts.end()) {
        return &same->second;
    }
    const auto named = understand(std::string(text));
    const auto found = named ? m_rows.find(named->place) : m_rows.end();
    return found == m_rows.end() ? nullptr : &found->second;
}

} // namespace kest::service
