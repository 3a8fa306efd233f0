#include <algorithm>
#include <array>
#include <cstring>

#include "kest/message.h"
#include "kest/seeprom.h"
#include "kesterrorlog.h"
#include "kesttrace.h"
#include "platform/netc.h"
#include "platform/tavo.h"

namespace kest
{
namespace
{

constexpr char sourceId[] = "kestprocessmsg";
constexpr char name[] = "kestProcessMsg";
constexpr std::uint32_t moduleId = 0xFF;

constexpr std::uint16_t typeRead = 0x8001;
constexpr std::uint16_t typeWrite = 0x8002;
constexpr std::uint16_t typeRefused = 0x8003;
constexpr std::uint16_t typeLocation = 0x8004;
constexpr unsigned int typeCount = 4;

/// Smallest payload of each type, from typeRead on.
constexpr std::array<unsigned int, typeCount> fixedHeadBytes{13, 13, 0, 8};

constexpr std::uint8_t flagServed = 0x40;
constexpr std::uint8_t flagWritten = 0x01;
constexpr std::uint8_t flagData = 0x02;

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
    trace_wobu_write_all(kest_trace, hash, " %s,%4x,%4x,%d", line, 0, name, message.identifier, message.type, size);
    trace_wobu_write2(kest_trace, 0, sizeof head, &head, bytes, message.dataPointer());
}

std::uint32_t wordAt(const char* payload, unsigned int index)
{
    std::uint32_t word = 0;
    std::memcpy(&word, payload + index * sizeof word, sizeof word);
    return word;
}

void freeBuffer(void* buffer) { tavo_util_free(&buffer); }

void reportNoMemory(kest_errorDetails& details, std::uint32_t bytes)
{
    trace_wobu_write_all(kest_trace, traceHash("no memory"), " %s,%x", __LINE__, 0, name, bytes);
    kest_describeFailure(details, moduleId, 0x132B, bytes);
}

/// Copies a buffer into the reply.
void answerData(NetcMessage& reply, const char* bytes, unsigned int size, kest_errorDetails& details)
{
    if (reply.setData(bytes, size)) {
        reply.replyFlags = flagServed | flagData;
    } else {
        reportNoMemory(details, size);
    }
}

ErrlEntry* answerLocation(const NetcMessage& request, NetcMessage& reply, char** location, kest_errorDetails& details)
{
    const char* const payload = request.dataPointer();
    const std::uint32_t device = wordAt(payload, 0);
    const std::uint32_t position = wordAt(payload, 1);
    ErrlEntry* const entry = TAVO_get_dev_addr_string(device, location, static_cast<zelPosition>(position), false);
    if (entry != nullptr) {
        trace_wobu_write_all(kest_trace, traceHash("device without location"), " %s,%X,%X", __LINE__, 0, name, device,
                             position);
        kest_describeFailure(details, moduleId, 0x1327, device, position);
    } else {
        answerData(reply, *location, static_cast<unsigned int>(std::strlen(*location)) + 1, details);
    }
    return entry;
}

/// Traces and describes a payload that ends too early. The size it should have had may need more than the 32 bits
/// reported.
void reportShort(const NetcMessage& request, std::uint32_t reason, std::uint64_t bytesNeeded,
                 kest_errorDetails& details)
{
    const unsigned int size = request.dataSize();
    const auto needed = static_cast<std::uint32_t>(bytesNeeded);
    trace_wobu_write_all(kest_trace, traceHash("payload too short"), " %s,%d,%d", __LINE__, 0, name, size, needed);
    kest_describeFailure(details, moduleId, reason, request.type, size, needed);
}

/// Takes a copy of the bytes to be written.
bool takeWriteData(const NetcMessage& request, unsigned int dataAt, seepromRequest& record, kest_errorDetails& details)
{
    const std::uint64_t bytesNeeded = std::uint64_t{record.length} + dataAt;
    if (request.dataSize() < bytesNeeded) {
        reportShort(request, 0x1326, bytesNeeded, details);
    } else if (record.data = static_cast<unsigned char*>(tavo_malloc(record.length)); record.data == nullptr) {
        reportNoMemory(details, record.length);
    } else {
        std::memcpy(record.data, request.dataPointer() + dataAt, record.length);
    }
    return record.data != nullptr;
}

/// Decodes a read or write request whose fixed head is there.
bool takeRequest(const NetcMessage& request, seepromRequest& record, kest_errorDetails& details)
{
    const char* const payload = request.dataPointer();
    const unsigned int bytesLeft = request.dataSize() - locationAt;
    record.offset = wordAt(payload, 0);
    record.reserved = wordAt(payload, 1);
    record.length = wordAt(payload, 2);
    const auto locationLength =
        static_cast<unsigned int>(strnlen(payload + locationAt, std::min(bytesLeft, locationBytesMax)));
    const unsigned int dataAt = locationAt + locationLength + 1;
    bool taken = false;
    if (request.dataSize() < dataAt) {
        reportShort(request, 0x1325, dataAt, details);
    } else {
        // a text that fills the field stands there without terminator
        std::memcpy(record.device.location, payload + locationAt, std::min(locationLength + 1, locationBytesMax));
        taken = request.type == typeRead || takeWriteData(request, dataAt, record, details);
    }
    return taken;
}

ErrlEntry* serveSeeprom(NetcMessage& reply, seepromRequest& record, kest_errorDetails& details)
{
    ErrlEntry* entry = nullptr;
    if (reply.type == typeWrite) {
        entry = KEST_seepromWrite(record.device, nullptr, record.offset, &record.length, record.data, nullptr);
        // also for a write that failed
        reply.replyFlags = flagServed | flagWritten;
    } else {
        entry = KEST_seepromRead(record.device, nullptr, record.offset, &record.length, &record.data, nullptr);
        if (entry == nullptr) {
            answerData(reply, reinterpret_cast<const char*>(record.data), record.length, details);
        }
    }
    return entry;
}

/// Whether the type is served and the payload holds the type's fixed head.
bool checkHead(const NetcMessage& request, kest_errorDetails& details)
{
    // types below wrap to large values
    const unsigned int index = unsigned{request.type} - typeRead;
    const unsigned int size = request.dataSize();
    bool good = false;
    if (index >= typeCount) {
        trace_wobu_write_all(kest_trace, traceHash("message type unknown"), " %s,%4x", __LINE__, 0, name, request.type);
        kest_describeFailure(details, moduleId, 0x1322, 204, request.type);
    } else if (request.type == typeRefused) {
        trace_wobu_write_all(kest_trace, traceHash("message type not served"), " %s", __LINE__, 0, name);
        kest_describeFailure(details, moduleId, 0x13FF, 234);
    } else if (size < fixedHeadBytes[index]) {
        trace_wobu_write_all(kest_trace, traceHash("payload without its head"), " %s,%d", __LINE__, 0, name, size);
        kest_describeFailure(details, moduleId, 0x1324, request.type, size);
    } else {
        good = true;
    }
    return good;
}

} // namespace
} // namespace kest

ErrlEntry* kestProcessMsg(void* /*context*/, NetcMessage* request, NetcMessage* reply)
{
    using namespace kest;
    const traceScope scope(name);
    seepromRequest record{};
    kest_errorDetails details{};
    char* location = nullptr;
    ErrlEntry* entry = nullptr;
    record.reserved = 2;
    traceMessage(*request, traceHash("request"), __LINE__);
    reply->identifier = request->identifier;
    reply->type = request->type;
    reply->replyFlags = 0;
    if (checkHead(*request, details)) {
        if (request->type == typeLocation) {
            entry = answerLocation(*request, *reply, &location, details);
        } else if (takeRequest(*request, record, details)) {
            entry = serveSeeprom(*reply, record, details);
        }
    }
    if (record.data != nullptr) {
        freeBuffer(record.data);
        record.data = nullptr;
    }
    kest_logError(entry, &details, sourceId);
    traceMessage(*reply, traceHash("reply"), __LINE__);
    freeBuffer(location);
    return entry;
}
