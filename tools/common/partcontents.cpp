#include "tools/common/partcontents.h"

#include <algorithm>
#include <fmt/core.h>

#include "base/guess.h"
#include "contents/difference.h"
#include "contents/fieldname.h"
#include "contents/formatlist.h"
#include "contents/reader.h"
#include "contents/recognise.h"
#include "platform/host/vpd/copies.h"
#include "tools/common/failure.h"

namespace kest::tools
{

void partContents::know(const byteRange& range, std::span<const unsigned char> bytes)
{
    m_knownRange = range;
    m_known = bytes;
}

const byteVector& partContents::upTo(std::uint32_t end)
{
    end = std::min(end, m_capacity);
    const std::uint32_t knownEnd = m_knownRange.offset + m_knownRange.length;
    for (auto at = static_cast<std::uint32_t>(m_bytes.size()); at < end;
         at = static_cast<std::uint32_t>(m_bytes.size())) {
        if (at >= m_knownRange.offset && at < knownEnd) {
            const auto more = m_known.subspan(at - m_knownRange.offset, std::min(end, knownEnd) - at);
            m_bytes.insert(m_bytes.end(), more.begin(), more.end());
            continue;
        }
        const std::uint32_t stop = at < m_knownRange.offset ? std::min(end, m_knownRange.offset) : end;
        const byteVector more = m_read({at, stop - at});
        m_bytes.insert(m_bytes.end(), more.begin(), more.end());
    }
    return m_bytes;
}

std::uint32_t recognitionBytes(std::uint32_t capacity)
{
    std::size_t most = 0;
    for (const contents::format* each : contents::formats()) {
        most = std::max(most, each->least);
    }
    return static_cast<std::uint32_t>(std::min<std::size_t>(most, capacity));
}

const contents::format* recognisedFormat(std::span<const unsigned char> image)
{
    const auto found = contents::recognise(image);
    return found.empty() ? nullptr : found.front();
}

std::uint32_t endOfContents(partContents& part)
{
    for (std::uint32_t read = recognitionBytes(part.capacity());; read = std::min(part.capacity(), read * 2)) {
        const byteVector& image = part.upTo(read);
        const contents::format* const as = recognisedFormat(image);
        if (as == nullptr) {
            return 0;
        }
        // what reaches the end of the bytes may be cut there
        const std::size_t end = contents::endOf(contents::readAs(*as, image));
        if (end < read || (end == read && end == as->length) || read == part.capacity()) {
            return static_cast<std::uint32_t>(std::min<std::size_t>(end, part.capacity()));
        }
    }
}

std::uint32_t servedBytes(const seeprom& chip)
{
    host::copyInfo copy;
    if (!chip.touchesHardware() && host::checkCopy(chip.target().number, copy) == 0) {
        return static_cast<std::uint32_t>(std::min<std::uint64_t>(copy.sizeBytes, UINT32_MAX));
    }
    return chip.target().end().type->bytes;
}

const contents::format& formatNamed(const std::string& name)
{
    std::vector<const contents::format*> begins;
    std::string all;
    std::vector<std::string> names;
    for (const contents::format* each : contents::formats()) {
        if (contents::isSameName(each->name, name) || contents::isSameName("spd-" + std::string(each->name), name)) {
            return *each;
        }
        if (!name.empty() && each->name.starts_with(name)) {
            begins.push_back(each);
        }
        names.emplace_back(each->name);
        all += (all.empty() ? "" : ", ") + names.back();
    }
    if (begins.size() != 1) {
        throw wrongUse(fmt::format("'{}' is the name of no known format", name),
                       didYouMean(name, names, "formats: " + all));
    }
    return *begins.front();
}

} // namespace kest::tools
