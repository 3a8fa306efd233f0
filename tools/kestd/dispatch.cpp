#include "tools/kestd/dispatch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/core.h>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/component.h"
#include "kest/address.h"
#include "kest/message.h"
#include "kest/reasons.h"
#include "kest/seeprom.h"
#include "platform/errl.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/errorlog/journal.h"
#include "platform/host/trace/hash.h"
#include "platform/host/vpd/copies.h"
#include "platform/netc.h"
#include "platform/tavo.h"
#include "tools/common/buffer.h"
#include "tools/common/devicetext.h"
#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/kestd/partcheck.h"
#include "tools/kestd/payload.h"
#include "tools/kestd/trace.h"
#include "tools/kestd/writtenpages.h"

namespace kest::service
{
namespace
{

using client::frame;

// of the service's own entries
constexpr std::uint8_t module = 1;
constexpr std::uint8_t detailsVersion = 1;
constexpr unsigned refusalsAMinute = 20;
constexpr std::int64_t minuteMs = 60'000;
constexpr std::size_t mostUsersRemembered = 1024;

/// Whether a request reads all bytes. A copy may have far more than fit into a reply.
bool isUnbounded(const frame& request, byteSource source)
{
    return request.type == client::typeRead && hasLength(request) && wantedLength(request) == 0 &&
           source != byteSource::hardware;
}

/// A read of one byte more than fits into a reply. That shows that the bytes do not fit, and no more are ever loaded.
/// Without a copy the device is read whole, whatever the length.
frame bounded(const frame& request) { return withLength(request, client::maximumDataBytes + 1); }

/// Whether a transfer passes the end of a device of `bytes` bytes; the chip would go on at its beginning. A copy has an
/// end of its own: its length may differ from the device's.
bool passesTheEnd(const frame& request, std::uint32_t bytes, byteSource source)
{
    const std::uint32_t offset = wantedOffset(request);
    const std::uint32_t length = wantedLength(request);
    const std::uint32_t wanted = length == 0 && request.type == client::typeRead ? bytes : length;
    return source != byteSource::copy && bytes != 0 && (wanted > bytes || offset > bytes - wanted);
}

bool isPermitted(const frame& request, permissionSet permission)
{
    return request.type == client::typeWrite ? permission.write : permission.read;
}

frame refuseAndLog(const frame& request, std::uint32_t code, const peerProcess& peer, const std::string& text,
                   refusalLog& refusals)
{
    return refusal(request, code, refusals.add(code, peer, request.type, wantedLength(request), text), text);
}

/// Adds the device that was asked for: what the library adds of one names its bus at most.
void attachDevice(ErrlEntry& entry, const frame& request)
{
    const std::string_view location = locationOf(request).value_or("");
    if (!location.empty()) {
        entry.addUsrDtls(location.data(), static_cast<std::uint16_t>(location.size()), componentService, detailsVersion,
                         kest_dtlsDeviceText);
    }
}

/// Has the library serve the request.
frame serve(const frame& request)
{
    frame reply{request.identifier, request.type, 0, 0, 0, {}};
    NetcMessage asked;
    NetcMessage answered;
    asked.identifier = request.identifier;
    asked.type = request.type;
    if (!asked.setData(reinterpret_cast<const char*>(request.payload.data()),
                       static_cast<unsigned>(request.payload.size()))) {
        throw std::bad_alloc();
    }
    const std::unique_ptr<ErrlEntry> entry(kestProcessMsg(nullptr, &asked, &answered));
    reply.flags = answered.replyFlags;
    if (entry != nullptr) {
        attachDevice(*entry, request);
        entry->commit(kest_component, ERRL_ACTION_REPORT);
        reply.returnCode = entry->getRC();
        reply.logId = entry->plid();
    }
    if (answered.dataSize() > client::maximumDataBytes) {
        reply =
            refusal(request, client::codeReplyTooLarge, 0,
                    fmt::format("the reply has {} bytes, more than {}", answered.dataSize(), client::maximumDataBytes));
    } else if (answered.dataSize() > 0) {
        const auto* data = reinterpret_cast<const std::uint8_t*>(answered.dataPointer());
        reply.payload.assign(data, data + answered.dataSize());
    }
    return reply;
}

/// Whether the hardware takes a write. A copy that is damaged takes it, too: it fails then.
bool reachesHardware(byteSource source)
{
    std::vector<std::uint8_t> none;
    host::copyFinding found;
    return source == byteSource::hardware ||
           (source == byteSource::mixed && host::readCopyPart(0, 0, 0, none, found) == ENOENT);
}

/// Traces what is to be known of the wear of a device.
void tellWear(const std::string& location, const std::string& text)
{
    if (!text.empty()) {
        trace_wobu_write_all(serviceTrace(), host::messageHash("wear"), " wear of %s: %s", __LINE__, 0,
                             location.c_str(), text.c_str());
    }
}

/// Has the library serve a write, and counts the pages that went out, also when it failed.
frame serveWrite(const frame& request, const std::string& location, byteSource source)
{
    if (!reachesHardware(source)) {
        return serve(request);
    }
    const writtenPages pages(location);
    frame reply = serve(request);
    tellWear(location, pages.count(wantedOffset(request), wantedLength(request), reply.returnCode == 0));
    return reply;
}

/// What a request is served with.
struct dispatching {
    const peerProcess& peer;
    const deviceDirectory& devices;
    refusalLog& refusals;
    deviceTurn& turn;
    bool lastTry;
    bool anyPart; ///< also one that the device table does not expect
};

/// Refuses a write to another part than the device table expects, or one whose part could not be examined.
std::optional<frame> checkPart(const frame& request, const std::string& location, byteSource source,
                               const dispatching& with)
{
    const partCheck found = examinePart(location, reachesHardware(source), serve);
    if (!found.failedRead) {
        return found.trouble.empty() ? std::nullopt
                                     : std::optional(refuseAndLog(request, client::codeOtherPart, with.peer,
                                                                  found.trouble, with.refusals));
    }
    frame reply = *found.failedRead;
    reply.identifier = request.identifier;
    reply.type = request.type;
    return reply;
}

/// Takes the device of a request. @return a refusal when that is not to be, or nothing while others have it
std::optional<frame> awaitDevice(const frame& request, const dispatching& with, bool& had)
{
    const deviceTurn::state now =
        with.turn.enter(std::string(locationOf(request).value_or("")), request.type == client::typeWrite, with.peer);
    had = now == deviceTurn::state::had;
    if (had || (now == deviceTurn::state::waiting && !with.lastTry)) {
        return std::nullopt;
    }
    const std::uint32_t code = now == deviceTurn::state::waiting ? client::codeBusy : client::codeNotLocked;
    return refusal(request, code, 0, with.turn.trouble());
}

/// Serves a read or write whose device may be named.
/// @param bytes  of the device, 0 when that is not known
/// @return nothing while others have the device
std::optional<frame> serveTransfer(const frame& request, std::uint32_t bytes, const dispatching& with)
{
    const byteSource source = with.devices.source();
    if (passesTheEnd(request, bytes, source)) {
        return refuseAndLog(request, client::codePastTheEnd, with.peer,
                            fmt::format("it passes the end of the device, which has {} bytes", bytes), with.refusals);
    }
    bool had = true;
    if (reachesHardware(source)) {
        std::optional<frame> refused = awaitDevice(request, with, had);
        if (!had) {
            return refused;
        }
    }
    if (isUnbounded(request, source)) {
        return serve(bounded(request));
    }
    if (request.type == client::typeWrite) {
        const std::string location(locationOf(request).value_or(""));
        std::optional<frame> refused = with.anyPart ? std::nullopt : checkPart(request, location, source, with);
        return refused ? refused : serveWrite(request, location, source);
    }
    frame reply = serve(request);
    const std::uint32_t wanted = wantedLength(request);
    if (source == byteSource::mixed && wanted != 0 && reply.flags == (client::flagServed | client::flagData) &&
        reply.payload.size() > wanted) {
        // without a copy the read went past the end of the device, round to where it began
        reply.payload.resize(wanted);
    }
    return reply;
}

/// Serves a read or write of a device that the table has, with the table's own text; refuses all others.
std::optional<frame> serveTableDevice(const frame& request, std::string_view location, const dispatching& with)
{
    const deviceDirectory& devices = with.devices;
    const auto refuse = [&](const std::string& why) {
        return refuseAndLog(request, client::codeForbidden, with.peer, why, with.refusals);
    };
    const deviceDirectory::tableRow* const row = location.empty() ? nullptr : devices.find(location);
    if (row == nullptr && !location.empty()) {
        return refuse(fmt::format("'{}' is no device of the device table", tools::escaped(location)));
    }
    if ((row == nullptr || devices.source() != byteSource::hardware) && !devices.hasNumberZero()) {
        return refuse(row == nullptr ? "the request names no device, and the device table has none with number 0"
                                     : "the read mode has messages served from copy 0, and the device table has no "
                                       "device with number 0");
    }
    return row == nullptr || row->text == location
               ? serveTransfer(request, row == nullptr ? 0 : row->bytes, with)
               : serveTransfer(withLocation(request, location.size(), row->text), row->bytes, with);
}

} // namespace

std::uint32_t refusalLog::add(std::uint32_t code, const peerProcess& peer, std::uint16_t type, std::uint32_t length,
                              const std::string& text)
{
    std::uint32_t logId = 0;
    if (takesShare(peer.uid)) {
        const std::unique_ptr<ErrlEntry> entry(
            host::newHostEntry(componentService, module, static_cast<std::uint16_t>(code),
                               {peer.uid, static_cast<std::uint32_t>(peer.pid), type, length}));
        if (entry != nullptr) {
            entry->addUsrDtls(text.data(), static_cast<std::uint16_t>(text.size()), componentService, detailsVersion,
                              host::detailsRefusal);
            entry->commit(componentService, ERRL_ACTION_REPORT);
            logId = entry->plid();
        }
    }
    return logId;
}

bool refusalLog::takesShare(uid_t user)
{
    const std::int64_t now = steadyMs();
    const std::lock_guard guard(m_lock);
    if (m_shares.size() >= mostUsersRemembered) {
        std::erase_if(m_shares, [now](const auto& share) { return now - share.second.sinceMs >= minuteMs; });
    }
    userShare& share = m_shares[user];
    if (share.used == 0 || now - share.sinceMs >= minuteMs) {
        share = {now, 0};
    }
    return share.used++ < refusalsAMinute;
}

frame refusal(const frame& request, std::uint32_t code, std::uint32_t logId, const std::string& text)
{
    return {request.identifier, request.type, client::flagText, code, logId, {text.begin(), text.end()}};
}

std::optional<frame> dispatch(const frame& request, const peerProcess& peer, permissionSet permission,
                              const deviceDirectory& devices, refusalLog& refusals, deviceTurn& turn, bool lastTry)
{
    const dispatching with{peer, devices, refusals, turn, lastTry, permission.raw};
    if (!isPermitted(request, permission)) {
        return refuseAndLog(request, client::codeForbidden, peer,
                            fmt::format("user {} is not permitted to {}", peer.uid,
                                        request.type == client::typeWrite ? "write" : "read"),
                            refusals);
    }
    if (wantedLength(request) > client::maximumDataBytes) {
        return refuseAndLog(
            request, client::codeLengthTooLarge, peer,
            fmt::format("{} bytes at once are more than {}", wantedLength(request), client::maximumDataBytes),
            refusals);
    }
    const std::optional<std::string_view> location = locationOf(request);
    // not about a device, or too short to be served
    if (!location) {
        return serve(request);
    }
    if (!permission.raw) {
        return serveTableDevice(request, *location, with);
    }
    const std::optional<namedDevice> named = devices.understand(std::string(*location));
    return serveTransfer(request, named ? named->bytes : 0, with);
}

/// The library looks it up for a read that asks for it. This read goes no further than the copy, or the empty device
/// text.
void adoptReadMode()
{
    constexpr kest_attributeValue readAgain = 2;
    std::array<kest_attributeValue, std::size_t{KEST_ATTR_COUNT}> attributes{400, 1, 15, readAgain, 2, 1};
    unsigned int length = 1;
    unsigned char* data = nullptr;
    delete KEST_seepromRead(tavo_deviceaddress{}, nullptr, 0, &length, &data, attributes.data());
    const tools::tavoBuffer buffer(data);
}

} // namespace kest::service
