#include "platform/tavo.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <span>
#include <string_view>

#include "base/component.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/trace/hash.h"
#include "platform/host/vpd/copies.h"
#include "platform/trace.h"

namespace
{

using namespace kest::host;

using kest::componentVpd;

enum module : std::uint8_t {
    moduleRead = 1,
    moduleWrite = 2,
    moduleLocation = 3,
};

// Reasons: docs/host-services.md lists them.
constexpr std::uint16_t badArgument = 0x1401;
constexpr std::uint16_t pastTheEnd = 0x1402;
constexpr std::uint16_t noCopy = 0x1403;
constexpr std::uint16_t fileFailed = 0x1404;
constexpr std::uint16_t noSuchDevice = 0x1405;
constexpr std::uint16_t noMemory = 0x1406;
constexpr std::uint16_t damagedCopy = 0x1407;

// User details of a damaged copy.
constexpr std::uint8_t subsectionRoot = 1;
constexpr std::uint8_t subsectionFile = 2;

constexpr unsigned int traceBytes = 4096;

/// The buffer "VPD", made at its first use. Threads that use it first at the same time get the same one.
trace_wobu_descriptor traceBuffer()
{
    static constinit std::atomic<trace_wobu_descriptor> made{nullptr};
    trace_wobu_descriptor buffer = made.load(std::memory_order_acquire);
    if (buffer == nullptr) {
        trace_wobu_init_buffer(&buffer, "VPD", traceBytes);
        made.store(buffer, std::memory_order_release);
    }
    return buffer;
}

/// A request as it came, and how it ended.
struct request {
    module who;
    std::uint32_t device;
    std::uint32_t length = 0;
    std::uint32_t offset = 0;
    std::uint16_t reason = 0;
    /// `errno`, the copy's size where the request passes its end, or where the copy is damaged.
    std::uint32_t cause = 0;
    const char* root = nullptr; ///< of a damaged copy

    void fail(std::uint16_t because, std::uint64_t why = 0)
    {
        reason = because;
        cause = static_cast<std::uint32_t>(why);
    }
    /// For an `errno` value of the functions of a copy that is there.
    void failCopy(int error, const copyFinding& found, const char* under)
    {
        if (error == EBADMSG) {
            fail(damagedCopy, found.damagedAt);
            root = under;
        } else {
            fail(error == EINVAL ? badArgument : fileFailed, static_cast<std::uint64_t>(error));
        }
    }
    [[nodiscard]] ErrlEntry* entry() const
    {
        return reason == 0 ? nullptr : newHostEntry(componentVpd, who, reason, {device, length, offset, cause});
    }
};

void addText(ErrlEntry& entry, std::string_view text, std::uint8_t subsection)
{
    const auto length = static_cast<unsigned short>(std::min<std::size_t>(text.size(), 0xFFFF));
    entry.addUsrDtls(text.data(), length, componentVpd, 1, subsection);
}

/// Names the copy in the entry: the number alone is one of many under several roots.
void nameCopy(ErrlEntry& entry, const request& asked)
{
    try {
        addText(entry, asked.root, subsectionRoot);
        addText(entry, copyPath(asked.device, asked.root).native(), subsectionFile);
    } catch (const std::exception&) {
        // without memory the entry has the number alone
    }
}

/// Does what a request asks for. Callers know no exceptions: where memory is short the request fails.
template <typename Body>
ErrlEntry* serve(request& asked, Body body)
{
    try {
        body();
    } catch (const std::exception&) {
        asked.fail(noMemory);
    }
    ErrlEntry* const entry = asked.entry();
    if (entry != nullptr && asked.root != nullptr) {
        nameCopy(*entry, asked);
    }
    return entry;
}

void readRange(request& asked, const char* root, unsigned char** data, unsigned int* length)
{
    std::vector<std::uint8_t> part;
    copyFinding found;
    const std::size_t most = asked.length == 0 ? largestCopyBytes : asked.length;
    const int error = readCopyPart(asked.device, asked.offset, most, part, found, root);
    if (error == ENOENT || error == ENOTDIR) {
        *length = 0;
    } else if (error != 0) {
        asked.failCopy(error, found, root);
    } else if (part.empty()) {
        asked.fail(pastTheEnd, found.sizeBytes);
    } else if (*data = static_cast<unsigned char*>(tavo_malloc(static_cast<unsigned int>(part.size())));
               *data == nullptr) {
        asked.fail(noMemory);
    } else {
        std::ranges::copy(part, *data);
        *length = static_cast<unsigned int>(part.size());
        if (!found.proved) {
            trace_wobu_write_all(traceBuffer(), messageHash("raw copy"),
                                 " copy %u of %s is raw: its bytes are unproved", __LINE__, 0, asked.device, root);
        }
    }
}

} // namespace

ErrlEntry* tavo_read_data_persistancy(const char* root, unsigned int device, const char* name, unsigned char** data,
                                      unsigned int* length, unsigned int offset)
{
    request asked{.who = moduleRead, .device = device, .length = length != nullptr ? *length : 0, .offset = offset};
    return serve(asked, [&] {
        if (data != nullptr) {
            *data = nullptr;
        }
        if (root == nullptr || name != nullptr || data == nullptr || length == nullptr) {
            asked.fail(badArgument, EINVAL);
        } else {
            readRange(asked, root, data, length);
        }
    });
}

ErrlEntry* tavo_write_data_persistancy(const char* root, unsigned int device, const char* name,
                                       const unsigned char* data, unsigned int* length, unsigned int offset)
{
    request asked{.who = moduleWrite, .device = device, .length = length != nullptr ? *length : 0, .offset = offset};
    return serve(asked, [&] {
        if (root == nullptr || name != nullptr || length == nullptr || (data == nullptr && *length > 0)) {
            asked.fail(badArgument, EINVAL);
        } else {
            copyFinding found;
            const int error = changeCopy(device, offset, std::span(data, *length), found, root);
            if (error == ERANGE) {
                asked.fail(pastTheEnd, found.sizeBytes);
            } else if (error == ENOENT || error == ENOTDIR) {
                asked.fail(noCopy);
            } else if (error != 0) {
                asked.failCopy(error, found, root);
            }
        }
    });
}

ErrlEntry* TAVO_get_dev_addr_string(unsigned int deviceAddress, char** string, zelPosition position, bool)
{
    request asked{.who = moduleLocation, .device = deviceAddress, .offset = position};
    if (string != nullptr) {
        *string = nullptr;
    }
    return serve(asked, [&] {
        const auto& devices = currentConfiguration().devices;
        const auto found = std::ranges::find_if(devices, [&](const deviceEntry& device) {
            return device.number == deviceAddress && device.position == position;
        });
        if (string == nullptr) {
            asked.fail(badArgument, EINVAL);
        } else if (found == devices.end()) {
            asked.fail(noSuchDevice);
        } else {
            *string = static_cast<char*>(tavo_malloc(static_cast<unsigned int>(found->location.size() + 1)));
            if (*string != nullptr) {
                std::memcpy(*string, found->location.data(), found->location.size());
            } else {
                asked.fail(noMemory);
            }
        }
    });
}

void* tavo_malloc(unsigned int size) { return std::calloc(std::max(size, 1U), 1); }

void tavo_util_free(void** buffer)
{
    if (buffer != nullptr) {
        std::free(*buffer);
        *buffer = nullptr;
    }
}
