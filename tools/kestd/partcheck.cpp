#include "tools/kestd/partcheck.h"

#include <algorithm>
#include <fmt/core.h>
#include <utility>

#include "platform/host/vpd/copies.h"
#include "tools/common/devicetext.h"
#include "tools/common/failure.h"
#include "tools/common/identity.h"
#include "tools/common/number.h"
#include "tools/kestd/payload.h"

namespace kest::service
{
namespace
{

using client::frame;
using tools::byteRange;
using tools::byteVector;

// as many as the tools make
constexpr int mostReads = 5;

/// A read that the library could not do.
struct readFailed {
    frame reply;
};

class partReader
{
public:
    partReader(std::string location, bool unsure, const frameServer& serve)
        : m_location(std::move(location)), m_unsure(unsure), m_serve(serve)
    {
    }
    /// Throws a `failure` or readFailed.
    [[nodiscard]] byteVector read(const byteRange& range) const;

private:
    [[nodiscard]] byteVector readOnce(const byteRange& range) const;

    std::string m_location;
    bool m_unsure; ///< whether a read alone proves nothing
    const frameServer& m_serve;
};

byteVector partReader::readOnce(const byteRange& range) const
{
    frame reply = m_serve(readRequest(m_location, range.offset, range.length));
    if (reply.flags != (client::flagServed | client::flagData)) {
        throw readFailed{std::move(reply)};
    }
    if (reply.payload.size() < range.length) {
        throw tools::failure{.what = fmt::format("the device table expects bytes behind offset {}, and {} of {} came",
                                                 range.offset, reply.payload.size(),
                                                 tools::countText(range.length, "byte"))};
    }
    // without a copy, mixed mode reads more
    return {reply.payload.begin(), reply.payload.begin() + range.length};
}

byteVector partReader::read(const byteRange& range) const
{
    byteVector bytes = readOnce(range);
    for (int reads = 1; m_unsure; ++reads) {
        if (reads == mostReads) {
            throw tools::failure{
                .what = fmt::format("reads of the bytes that the device table expects, at offset {}, do not settle",
                                    range.offset)};
        }
        byteVector again = readOnce(range);
        if (again == bytes) {
            break;
        }
        bytes = std::move(again);
    }
    return bytes;
}

/// How many bytes there are to read: messages are served from the hardware, or from copy 0.
std::uint32_t servedBytes(const tools::device& which, bool hardware)
{
    host::copyInfo copy;
    if (!hardware && host::checkCopy(0, copy) == 0) {
        return static_cast<std::uint32_t>(std::min<std::uint64_t>(copy.sizeBytes, UINT32_MAX));
    }
    return which.end().type->bytes;
}

} // namespace

partCheck examinePart(const std::string& location, bool hardware, const frameServer& serve)
{
    try {
        const tools::device which = tools::parseDeviceText(location);
        const partReader reader(location, hardware && which.behindHub(), serve);
        const tools::identityFinding finding = tools::findIdentity(
            which, servedBytes(which, hardware), [&reader](const byteRange& range) { return reader.read(range); });
        return {.trouble = finding.difference, .failedRead = std::nullopt};
    } catch (const readFailed& failed) {
        return {.trouble = {}, .failedRead = failed.reply};
    } catch (const tools::failure& why) {
        return {.trouble = why.what, .failedRead = std::nullopt};
    }
}

} // namespace kest::service
