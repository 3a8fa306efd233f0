#include "tools/kestd/dispatch.h"

#include <array>
#include <cstring>
#include <fmt/format.h>
#include <memory>

#include "kest/address.h"
#include "kest/message.h"
#include "kest/seeprom.h"
#include "platform/errl.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/registry/configuration.h"
#include "platform/netc.h"
#include "platform/tavo.h"
#include "tools/common/buffer.h"
#include "tools/kestd/clock.h"

namespace kest::service
{
namespace
{

using client::frame;

constexpr std::uint16_t component           = 0x1600; // of the service's own entries
constexpr std::uint8_t  module              = 1;
constexpr std::uint16_t libraryComponent    = 0x1300;
constexpr std::uint8_t  detailsVersion      = 1;
constexpr std::uint8_t  detailsRefusal      = 8; // user details: the text of the refusal
constexpr std::size_t   lengthAt            = 8; // of the length word in the payload of a read or write
constexpr unsigned      refusalsAMinute     = 20;
constexpr std::int64_t  minuteMs            = 60'000;
constexpr std::size_t   mostUsersRemembered = 1024;

bool isTransfer(const frame& request) { return request.type == client::typeRead || request.type == client::typeWrite; }

/// The number of bytes that a read or write is about; 0 when the payload does not get as far.
std::uint32_t wantedLength(const frame& request)
{
    std::uint32_t length = 0;
    if (isTransfer(request) && request.payload.size() >= lengthAt + sizeof length) {
        std::memcpy(&length, request.payload.data() + lengthAt, sizeof length); // host byte order
    }
    return length;
}

/// Whether reads are served from a persisted copy. The library settles its read mode by the same word.
bool servesCopies()
{
    const auto& registry = host::currentConfiguration().registry;
    const auto  mode     = registry.find("tavo/ReadMode");
    return mode != registry.end() && (mode->second.starts_with("FileMode") || mode->second.starts_with("MixedMode"));
}

/// Whether a request is a read of all there is, which of a copy may be far more than a reply holds.
bool isUnbounded(const frame& request)
{
    return request.type == client::typeRead && request.payload.size() >= lengthAt + sizeof(std::uint32_t) &&
           wantedLength(request) == 0 && servesCopies();
}

/// The read of one byte more than a reply holds: that is enough to tell that it does not fit, and all that is ever loaded. Without a
/// copy a device is read whole, whatever the length.
frame bounded(const frame& request)
{
    constexpr std::uint32_t oneTooMany = client::maximumDataBytes + 1;
    frame                   read       = request;
    std::memcpy(read.payload.data() + lengthAt, &oneTooMany, sizeof oneTooMany); // host byte order
    return read;
}

bool isPermitted(const frame& request, Permission permission)
{
    return request.type == client::typeWrite ? permission.write : permission.read;
}

frame refuseAndLog(const frame& request, std::uint32_t code, const Peer& peer, const std::string& text,
                   RefusalLog& refusals)
{
    return refusal(request, code, refusals.add(code, peer, request.type, wantedLength(request), text), text);
}

/// Has the library serve the request.
frame serve(const frame& request)
{
    frame       reply{request.identifier, request.type, 0, 0, 0, {}};
    NetcMessage asked;
    NetcMessage answered;
    asked.identifier = request.identifier;
    asked.type       = request.type;
    asked.setData(reinterpret_cast<const char*>(request.payload.data()), static_cast<unsigned>(request.payload.size()));
    const std::unique_ptr<ErrlEntry> entry(kestProcessMsg(nullptr, &asked, &answered));
    reply.flags = answered.replyFlags;
    if (entry != nullptr) {
        entry->commit(libraryComponent, ERRL_ACTION_REPORT);
        reply.returnCode = entry->getRC();
        reply.logId      = entry->plid();
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

} // namespace

std::uint32_t RefusalLog::add(std::uint32_t code, const Peer& peer, std::uint16_t type, std::uint32_t length,
                              const std::string& text)
{
    std::uint32_t logId = 0;
    if (takesShare(peer.uid)) {
        const std::unique_ptr<ErrlEntry> entry(
            host::newHostEntry(component, module, static_cast<std::uint16_t>(code),
                               {peer.uid, static_cast<std::uint32_t>(peer.pid), type, length}));
        if (entry != nullptr) {
            entry->addUsrDtls(text.data(), static_cast<std::uint16_t>(text.size()), component, detailsVersion,
                              detailsRefusal);
            entry->commit(component, ERRL_ACTION_REPORT);
            logId = entry->plid();
        }
    }
    return logId;
}

bool RefusalLog::takesShare(uid_t user)
{
    const std::int64_t    now = nowMs();
    const std::lock_guard guard(m_lock);
    if (m_shares.size() >= mostUsersRemembered) {
        std::erase_if(m_shares, [now](const auto& share) { return now - share.second.sinceMs >= minuteMs; });
    }
    Share& share = m_shares[user];
    if (share.used == 0 || now - share.sinceMs >= minuteMs) {
        share = {now, 0};
    }
    return share.used++ < refusalsAMinute;
}

frame refusal(const frame& request, std::uint32_t code, std::uint32_t logId, const std::string& text)
{
    return {request.identifier, request.type, client::flagText, code, logId, {text.begin(), text.end()}};
}

frame dispatch(const frame& request, const Peer& peer, Permission permission, RefusalLog& refusals)
{
    frame reply;
    if (!isPermitted(request, permission)) {
        reply = refuseAndLog(request, client::codeForbidden, peer,
                             fmt::format("user {} is not permitted to {}", peer.uid,
                                         request.type == client::typeWrite ? "write" : "read"),
                             refusals);
    } else if (wantedLength(request) > client::maximumDataBytes) {
        reply = refuseAndLog(
            request, client::codeLengthTooLarge, peer,
            fmt::format("{} bytes at once are more than {}", wantedLength(request), client::maximumDataBytes),
            refusals);
    } else {
        reply = isUnbounded(request) ? serve(bounded(request)) : serve(request);
    }
    return reply;
}

/// The library does so on behalf of a read that asks for it. This one gets no further than the copy, or the empty device text.
void adoptReadMode()
{
    constexpr kest_attributeValue                                 readAgain = 2;
    std::array<kest_attributeValue, std::size_t{KEST_ATTR_COUNT}> attributes{400, 1, 15, readAgain, 2, 1};
    unsigned int                                                  length = 1;
    unsigned char*                                                data   = nullptr;
    delete KEST_seepromRead(tavo_deviceaddress{}, nullptr, 0, &length, &data, attributes.data());
    const tools::tavoBuffer buffer(data);
}

} // namespace kest::service
