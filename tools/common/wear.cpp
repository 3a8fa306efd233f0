#include "tools/common/wear.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fmt/core.h>

#include "base/hash.h"
#include "platform/host/configuration/configuration.h"
#include "platform/host/configuration/deviceplace.h"
#include "tools/common/escape.h"
#include "tools/common/number.h"

namespace kest::tools
{
namespace
{

constexpr std::uint32_t pagesInGroup = 16;
/// Page size for a device whose type has none.
constexpr std::uint32_t pageBytesUnknown = 16;

std::uint32_t pageBytesOf(const device& which)
{
    const std::uint32_t bytes = which.end().type->pageBytes;
    return bytes != 0 ? bytes : pageBytesUnknown;
}

/// The device's counts, all 0. Every text of one place and one type means the same counts.
wearCounts countsOf(const device& which)
{
    wearCounts counts;
    for (const host::placedType& each : host::placesOf(which.text, host::currentConfiguration().nodes)) {
        counts.place = fmt::format("{} {:X}", each.place, each.type);
    }
    if (counts.place.size() > longestWearPlace) {
        // its end tells devices apart
        counts.place.erase(0, counts.place.size() - longestWearPlace);
    }
    counts.groupBytes = pagesInGroup * pageBytesOf(which);
    const std::uint32_t bytes = std::max(which.end().type->bytes, 1U);
    counts.groups.resize(std::min<std::size_t>((bytes - 1) / counts.groupBytes + 1, mostWearGroups));
    return counts;
}

std::filesystem::path fileOf(const wearCounts& counts)
{
    return host::currentConfiguration().stateFolder / "wear" / fmt::format("{:016x}", fnvHash64(counts.place));
}

std::string troubleText(const std::filesystem::path& file, int error)
{
    if (error == 0) {
        return {};
    }
    const char* const why = error == EEXIST    ? "the file is another device's"
                            : error == EBADMSG ? "the file is damaged"
                                               : std::strerror(error);
    return fmt::format("counts in {}: {}", file.string(), why);
}

/// Adds up what is written; what has been counted is all in the file.
wearReport addPages(const device& which, std::uint32_t offset, std::uint32_t length)
{
    if (length == 0) {
        return wearOf(which);
    }
    wearReport report{.counts = countsOf(which), .known = false, .trouble = {}};
    wearCounts more = report.counts;
    const std::uint32_t pageBytes = pageBytesOf(which);
    const std::uint64_t end = std::uint64_t{offset} + length;
    for (std::uint64_t page = offset / pageBytes; page * pageBytes < end; ++page) {
        const auto group = static_cast<std::size_t>(page * pageBytes / more.groupBytes);
        ++more.groups[std::min(group, more.groups.size() - 1)];
    }
    bool setAside = false;
    const auto file = fileOf(more);
    const int error = addWear(file, more, report.counts, setAside);
    report.known = error == 0;
    report.trouble = troubleText(file, error);
    if (setAside && report.trouble.empty()) {
        report.trouble = fmt::format("those before were lost: {} was damaged, and is {}.damaged now",
                                     file.filename().string(), file.string());
    }
    return report;
}

} // namespace

wearReport countWrite(const device& which, std::uint32_t offset, std::uint32_t length) noexcept
{
    try {
        return addPages(which, offset, length);
    } catch (const std::exception&) {
        // without memory there is not even a text
        return {};
    }
}

void countWriteOrTell(const device& which, std::uint32_t offset, std::uint32_t length) noexcept
{
    static std::atomic<bool> told{false};
    const wearReport report = countWrite(which, offset, length);
    if (report.trouble.empty() || told.exchange(true)) {
        return;
    }
    try {
        std::fputs(fmt::format("kestctl: {}: page writes: {}\n", escaped(which.label), escaped(report.trouble)).c_str(),
                   stderr);
    } catch (const std::exception&) {
        // no memory for the line
    }
}

wearReport wearOf(const device& which)
{
    wearReport report{.counts = countsOf(which), .known = false, .trouble = {}};
    const auto file = fileOf(report.counts);
    const int error = readWear(file, report.counts);
    report.known = error == 0;
    if (error != EACCES) {
        report.trouble = troubleText(file, error);
    }
    return report;
}

std::string wearWarning(const wearCounts& counts)
{
    const std::uint64_t limit = host::currentConfiguration().wearLimit;
    if (limit == 0 || counts.groups.empty()) {
        return {};
    }
    const std::size_t busiest = counts.busiest();
    if (counts.groups[busiest] <= limit) {
        return {};
    }
    return fmt::format("{} in the {} pages from offset {} (0x{:X}) are more than wear.limit, {}",
                       countText(counts.groups[busiest], "page write"), pagesInGroup, busiest * counts.groupBytes,
                       busiest * counts.groupBytes, limit);
}

std::string wearText(const wearCounts& counts)
{
    const std::uint64_t most = counts.groups.empty() ? 0 : counts.groups[counts.busiest()];
    return fmt::format("{} so far, at most {} in {} pages", countText(counts.total(), "page write"), most,
                       pagesInGroup);
}

void addWearFields(jsonValue& object, const wearReport& wear)
{
    const wearCounts& counts = wear.counts;
    if (!wear.known || counts.groups.empty()) {
        object.add({{"page_writes", nullptr}, {"page_writes_in_group", nullptr}, {"worn", nullptr}});
        return;
    }
    object.add({{"page_writes", counts.total()},
                {"page_writes_in_group", counts.groups[counts.busiest()]},
                {"worn", !wearWarning(counts).empty()}});
}

} // namespace kest::tools
