#include <algorithm>
#include <array>
#include <cstring>

#include "kest/message.h"
#include "kest/seeprom.h"
#include "kestfailure.h"
#include "kesttrace.h"
#include "platform/netc.h"
#include "platform/tavo.h"

namespace kest
{
namespace
{

constexpr routine messageRoutine{"kestProcessMsg", KEST_MODULE_PROCESS_MSG, "kestprocessmsg"};

/// Smallest payload of each type, from the first on.
constexpr std::array<unsigned int, 4> fixedHeadBytes{13, 13, 0, 8};

constexpr unsigned int locationAt = 12; ///< offset of the location text in a payload
constexpr unsigned int locationBytesMax = sizeof(tavo_deviceaddress::location);

/// Head of a binary trace record, host byte order.
struct binaryTraceHead {
    std::uint16_t bytes;
    std::uint16_t tag;
    std::uint32_t hash;
    std::uint32_t line;
};
static_assert(sizeof(binaryTraceHead) == 12);

constexpr unsigned int tracedBytesMax = 128;

struct seepromRequest {
    std::uint32_t offset;
    std::uint32_t reserved; ///< carried, not used
    std::uint32_t length;
    unsigned char* data; ///< owned
    tavo_deviceaddress device;
};

void traceMessage(const NetcMessage& message, std::uint32_t hash, int line)
{
    const unsigned int size = message.dataSize();
    const unsigned int bytes = std::min(size, tracedBytesMax);
    const binaryTraceHead head{static_cast<std::uint16_t>(bytes), 0x4644, 0x080C87FA, static_cast<std::uint32_t>(line)};
    KEST_TRACE_AT(line, hash, ",%4x,%4x,%d", messageRoutine.name, message.identifier, message.type, size);
    trace_wobu_write2(kest_trace, 0, sizeof head, &head, bytes, message.dataPointer());
}

std::uint32_t wordAt(const char* payload, unsigned int index)
{
    std::uint32_t word = 0;
    std::memcpy(&word, payload + index * sizeof word, sizeof word);
    return word;
}

void freeBuffer(void* buffer) { tavo_util_free(&buffer); }

/// @return false
bool reportNoMemory(failureReport& report, std::uint32_t bytes)
{
    KEST_TRACE(traceHash("no memory"), ",%x", messageRoutine.name, bytes);
    report.describe(KEST_REASON_MISSING, bytes);
    return false;
}

/// Copies a buffer into the reply.
void answerData(NetcMessage& reply, const char* bytes, unsigned int size, failureReport& report)
{
    if (reply.setData(bytes, size)) {
        reply.replyFlags = KEST_REPLY_SERVED | KEST_REPLY_DATA;
    } else {
        reportNoMemory(report, size);
    }
}

void answerLocation(const NetcMessage& request, NetcMessage& reply, char** location, failureReport& report)
{
    const char* const payload = request.dataPointer();
    const std::uint32_t device = wordAt(payload, 0);
    const std::uint32_t position = wordAt(payload, 1);
    report.entry = TAVO_get_dev_addr_string(device, location, static_cast<zelPosition>(position), false);
    if (report.entry != nullptr) {
        KEST_TRACE(traceHash("device without location"), ",%X,%X", messageRoutine.name, device, position);
        report.describe(KEST_REASON_NO_LOCATION, device, position);
    } else {
        answerData(reply, *location, static_cast<unsigned int>(std::strlen(*location)) + 1, report);
    }
}

/// Traces and describes a payload that ends too early. Of the size it should have had, the low 32 bits are reported.
/// @return false
bool reportShort(const NetcMessage& request, kest_reason reason, std::uint64_t bytesNeeded, failureReport& report)
{
    const unsigned int size = request.dataSize();
    const auto needed = static_cast<std::uint32_t>(bytesNeeded);
    KEST_TRACE(traceHash("payload too short"), ",%d,%d", messageRoutine.name, size, needed);
    report.describe(reason, request.type, size, needed);
    return false;
}

/// Takes a copy of the bytes to be written.
bool takeWriteData(const NetcMessage& request, unsigned int dataAt, seepromRequest& record, failureReport& report)
{
    const std::uint64_t bytesNeeded = std::uint64_t{record.length} + dataAt;
    if (request.dataSize() < bytesNeeded) {
        return reportShort(request, KEST_REASON_MESSAGE_DATA, bytesNeeded, report);
    }
    record.data = static_cast<unsigned char*>(tavo_malloc(record.length));
    if (record.data == nullptr) {
        return reportNoMemory(report, record.length);
    }
    std::memcpy(record.data, request.dataPointer() + dataAt, record.length);
    return true;
}

/// Decodes a read or write request whose fixed head is there.
bool takeRequest(const NetcMessage& request, seepromRequest& record, failureReport& report)
{
    const char* const payload = request.dataPointer();
    const unsigned int bytesLeft = request.dataSize() - locationAt;
    record.offset = wordAt(payload, 0);
    record.reserved = wordAt(payload, 1);
    record.length = wordAt(payload, 2);
    const auto locationLength =
        static_cast<unsigned int>(strnlen(payload + locationAt, std::min(bytesLeft, locationBytesMax)));
    const unsigned int dataAt = locationAt + locationLength + 1;
    if (request.dataSize() < dataAt) {
        return reportShort(request, KEST_REASON_MESSAGE_TEXT, dataAt, report);
    }
    // a text that fills the field stands there without terminator
    std::memcpy(record.device.location, payload + locationAt, std::min(locationLength + 1, locationBytesMax));
    return request.type == KEST_MSG_SEEPROM_READ || takeWriteData(request, dataAt, record, report);
}

void serveSeeprom(NetcMessage& reply, seepromRequest& record, failureReport& report)
{
    if (reply.type == KEST_MSG_SEEPROM_WRITE) {
        report.entry = KEST_seepromWrite(record.device, nullptr, record.offset, &record.length, record.data, nullptr);
        // also for a write that failed
        reply.replyFlags = KEST_REPLY_SERVED | KEST_REPLY_WRITTEN;
        return;
    }
    report.entry = KEST_seepromRead(record.device, nullptr, record.offset, &record.length, &record.data, nullptr);
    if (report.entry == nullptr) {
        answerData(reply, reinterpret_cast<const char*>(record.data), record.length, report);
    }
}

/// Whether the type is served and the payload holds the type's fixed head.
bool checkHead(const NetcMessage& request, failureReport& report)
{
    // smaller types wrap to large values
    const unsigned int index = unsigned{request.type} - KEST_MSG_SEEPROM_READ;
    const unsigned int size = request.dataSize();
    if (index >= fixedHeadBytes.size()) {
        KEST_TRACE(traceHash("message type unknown"), ",%4x", messageRoutine.name, request.type);
        report.describe(KEST_REASON_MESSAGE_TYPE, 204, request.type);
        return false;
    }
    if (request.type == KEST_MSG_REFUSED) {
        return report.fail(traceHash("message type not served"), KEST_REASON_UNSUPPORTED, 234);
    }
    if (size < fixedHeadBytes[index]) {
        KEST_TRACE(traceHash("payload without its head"), ",%d", messageRoutine.name, size);
        report.describe(KEST_REASON_MESSAGE_HEAD, request.type, size);
        return false;
    }
    return true;
}

} // namespace
} // namespace kest

ErrlEntry* kestProcessMsg(void* /*context*/, NetcMessage* request, NetcMessage* reply)
{
    using namespace kest;
    reportedCall report{messageRoutine};
    seepromRequest record{};
    char* location = nullptr;
    record.reserved = 2;
    traceMessage(*request, traceHash("request"), __LINE__);
    reply->identifier = request->identifier;
    reply->type = request->type;
    reply->replyFlags = 0;
    if (checkHead(*request, report)) {
        if (request->type == KEST_MSG_LOCATION) {
            answerLocation(*request, *reply, &location, report);
        } else if (takeRequest(*request, record, report)) {
            serveSeeprom(*reply, record, report);
        }
    }
    if (record.data != nullptr) {
        freeBuffer(record.data);
    }
    report.finish();
    traceMessage(*reply, traceHash("reply"), __LINE__);
    freeBuffer(location);
    return report.entry;
}
