#include "tools/common/contentsguard.h"

#include <algorithm>
#include <fmt/core.h>
#include <optional>
#include <vector>

#include "contents/candidate.h"
#include "contents/difference.h"
#include "contents/edit.h"
#include "contents/reader.h"
#include "contents/recognise.h"
#include "tools/common/failure.h"
#include "tools/common/output.h"

namespace kest::tools
{
namespace
{

using contents::format;
using contents::reading;

/// Show the format of most contents; more are read only where they leave one open.
constexpr std::uint32_t firstBytes = 128;

/// An image as the formats have it that recognise it.
std::vector<reading> readingsOf(std::span<const unsigned char> image)
{
    std::vector<reading> found;
    for (const format* each : contents::recognise(image)) {
        found.push_back(contents::readAs(*each, image));
    }
    return found;
}

std::size_t endOfAll(const std::vector<reading>& readings)
{
    std::size_t end = 0;
    for (const reading& each : readings) {
        end = std::max(end, contents::endOf(each));
    }
    return end;
}

/// A part before and after a write.
struct bothContents {
    std::vector<reading> before;
    std::vector<reading> after;
};

/// Reads so much of the part that nothing of what it holds by a format is cut, before and after the write.
bothContents readBoth(partContents& part, const byteRange& range, std::span<const unsigned char> wanted)
{
    const std::uint32_t writtenEnd = range.offset + range.length;
    const std::uint32_t enough = recognitionBytes(part.capacity());
    std::uint32_t end = std::min(enough, firstBytes);
    end = range.offset == 0 ? std::max(end, std::min(writtenEnd, part.capacity())) : end;
    for (;;) {
        const byteVector& old = part.upTo(end);
        byteVector now = old;
        if (range.offset < now.size()) {
            const std::size_t count = std::min<std::size_t>(range.length, now.size() - range.offset);
            std::copy_n(wanted.begin(), count, now.begin() + range.offset);
        }
        bothContents both{.before = readingsOf(old), .after = readingsOf(now)};
        if (both.before.empty() && both.after.empty()) {
            if (end >= enough || !(contents::canHaveFormat(old, 0) || contents::canHaveFormat(now, 0))) {
                return both;
            }
            end = enough;
            continue;
        }
        if (end >= part.capacity() || std::max(endOfAll(both.before), endOfAll(both.after)) < end) {
            return both;
        }
        // what reaches the end of the bytes may be cut there
        end = std::min(part.capacity(), end * 2);
    }
}

std::string titled(const format& what) { return fmt::format("contents of the format {} ({})", what.name, what.title); }

std::string damagedText(const reading& what, const std::string& damage)
{
    return fmt::format("the part would hold {} that are damaged: {}", titled(*what.as), damage);
}

/// What is wrong with new contents; nothing when a format takes them as they are, or none knows them.
std::optional<std::string> wrongIn(const std::vector<reading>& after)
{
    std::optional<std::string> wrong;
    for (const reading& each : after) {
        const auto broken = contents::brokenParts(each);
        if (broken.empty() && each.problem.empty()) {
            return std::nullopt;
        }
        std::string text = each.problem;
        for (const contents::node* part : broken) {
            text += (text.empty() ? "" : "; ") + contents::brokenText(*part);
        }
        wrong = wrong ? wrong : damagedText(each, text);
    }
    return wrong;
}

std::string namesOf(const std::vector<reading>& readings)
{
    return readings.empty() ? "" : std::string(readings.front().as->name);
}

/// What helps against damage, before other hints; empty: nothing.
std::string remedyFor(const std::string& format)
{
    return contents::isEditable(format) ? fmt::format("'kestctl seeprom make {}' makes a whole image; ", format) : "";
}

/// A known format that would be no more.
std::optional<std::string> lostIn(const bothContents& both)
{
    for (const reading& each : both.before) {
        const bool stays = std::ranges::any_of(both.after, [&each](const reading& now) { return now.as == each.as; });
        if (!stays) {
            const std::string other = both.after.empty() ? "none that is known" : namesOf(both.after);
            return fmt::format("the part holds {}, and would hold another format: {}", titled(*each.as), other);
        }
    }
    return std::nullopt;
}

} // namespace

jsonValue contentsJson(const contentsFinding& finding)
{
    const auto name = [](const std::string& text) { return text.empty() ? jsonValue() : jsonValue(text); };
    return {{"before", name(finding.before)}, {"after", name(finding.after)}, {"doubt", name(finding.doubt)}};
}

contentsFinding judgeContents(partContents& part, const byteRange& range, std::span<const unsigned char> wanted)
{
    if (!contents::canHaveFormat(part.knownBytes(), range.offset) && !contents::canHaveFormat(wanted, range.offset)) {
        return {};
    }
    const bothContents both = readBoth(part, range, wanted);
    contentsFinding finding{.before = namesOf(both.before), .after = namesOf(both.after), .doubt = {}};
    if (std::max(endOfAll(both.before), endOfAll(both.after)) <= range.offset) {
        // behind what the format has
        return finding;
    }
    if (const auto lost = lostIn(both)) {
        finding.doubt = *lost;
    } else if (const auto wrong = wrongIn(both.after)) {
        finding.doubt = *wrong;
        finding.remedy = remedyFor(finding.after);
    }
    return finding;
}

contentsFinding judgeWritten(std::span<const unsigned char> bytes)
{
    contentsFinding finding;
    for (const reading& each : readingsOf(bytes)) {
        for (const contents::node* part : contents::brokenParts(each)) {
            if (part->sum && finding.doubt.empty()) {
                finding.after = each.as->name;
                finding.doubt = damagedText(each, contents::brokenText(*part));
                finding.remedy = remedyFor(finding.after);
            }
        }
    }
    return finding;
}

void askForContents(const device& which, const contentsFinding& finding)
{
    if (!canAsk()) {
        throw failure{.code = exitRefused,
                      .what = finding.doubt,
                      .tryThis = finding.remedy + "--force writes all the same",
                      .device = which.label,
                      .step = contentsStep};
    }
    confirm(fmt::format("{}: {}.", which.label, finding.doubt), false);
}

contentsFinding findContents(const seeprom& chip, const byteRange& range, std::span<const unsigned char> old,
                             std::span<const unsigned char> wanted, bytesReader read)
{
    // bytes of a 172 device have no offsets
    if (!chip.touchesHardware() || chip.target().end().type->type == KEST_DEV_172) {
        return {};
    }
    partContents part(chip.target().end().type->bytes, std::move(read));
    part.know(range, old);
    return judgeContents(part, range, wanted);
}

} // namespace kest::tools
