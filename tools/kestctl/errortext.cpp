#include "tools/kestctl/errortext.h"

#include <algorithm>
#include <fmt/core.h>
#include <sstream>
#include <string>
#include <string_view>

#include "platform/host/errorlog/deviceof.h"
#include "tools/common/escape.h"
#include "tools/common/output.h"
#include "tools/common/when.h"
#include "tools/kestctl/codes.h"
#include "tools/kestctl/srcwords.h"

namespace kest::tools
{
namespace
{

std::string asText(const std::vector<std::uint8_t>& bytes) { return {bytes.begin(), bytes.end()}; }

/// A code with its name: "0x1311 nothing answers".
std::string named(const std::string& number, const char* name) { return *name == 0 ? number : number + " " + name; }

/// A text for people, escaped and limited to so many bytes. A longer text loses its middle, since devices differ in
/// both ends of their texts.
std::string shortened(const std::string& text, std::size_t most)
{
    constexpr std::string_view gap = "...";
    const auto inside = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; };
    std::string shown = escaped(text);
    if (shown.size() <= most) {
        return shown;
    }
    std::size_t head = (most - gap.size()) / 2;
    std::size_t tail = shown.size() - (most - gap.size() - head);
    while (head > 0 && inside(shown[head])) {
        --head;
    }
    while (tail < shown.size() && inside(shown[tail])) {
        ++tail;
    }
    return shown.substr(0, head).append(gap).append(shown.substr(tail));
}

void line(const std::string& name, const std::string& value)
{
    standardOutput().text(fmt::format("{:<16}{}\n", name, value));
}

void showSrc(std::size_t index, const host::loggedSrc& src)
{
    const std::uint32_t module = moduleOf(src);
    line(fmt::format("SRC {}", index + 1),
         named(fmt::format("0x{:04X}", src.words[wordReason]), reasonText(src.words[wordReason])));
    line("  module", named(std::to_string(module), moduleText(componentOf(src), module)));
    line("  subsystem",
         named(fmt::format("0x{:02X}", src.words[wordSubsystem]), subsystemText(src.words[wordSubsystem])));
    line("  user data", fmt::format("{:08X} {:08X} {:08X} {:08X}", src.words[wordUserData], src.words[wordUserData + 1],
                                    src.words[wordUserData + 2], src.words[wordUserData + 3]));
}

void showDetails(const host::loggedDetails& details)
{
    const std::string name = subsectionText(details.component, details.subsection);
    line("details " + std::to_string(details.subsection), name.empty() ? "user details" : name);
    if (isText(details.bytes)) {
        standardOutput().text("  " + escaped(asText(details.bytes)) + "\n");
        return;
    }
    constexpr std::size_t columns = 16;
    for (std::size_t at = 0; at < details.bytes.size(); at += columns) {
        const auto end = std::min(at + columns, details.bytes.size());
        std::string row = fmt::format("  {:04x} ", at);
        for (std::size_t index = at; index < end; ++index) {
            row += fmt::format(" {:02x}", details.bytes[index]);
        }
        standardOutput().text(row + "\n");
    }
}

/// Each line of a text, escaped and indented.
void showLines(const std::string& text)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        standardOutput().text("  " + escaped(line) + "\n");
    }
}

} // namespace

bool isText(const std::vector<std::uint8_t>& bytes)
{
    return !bytes.empty() && std::ranges::all_of(bytes, [](std::uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
}

void showRow(const host::loggedEntry& entry)
{
    constexpr std::size_t deviceColumns = 38;
    const std::uint32_t reason = reasonOf(entry);
    const std::string device = host::deviceOf(entry);
    standardOutput().text(fmt::format(
        "{} {:.19}  {:08X}  {}\n{:<11}{}\n", standardOutput().paint(colour::bold, fmt::format("0x{:08X}", entry.plid)),
        timeText(entry.committedMs), entry.returnCode, device.empty() ? "-" : shortened(device, deviceColumns), "",
        named(fmt::format("{:04X}", reason), reasonText(reason))));
}

void showEntry(const host::loggedEntry& entry)
{
    line("entry", standardOutput().paint(colour::bold, fmt::format("0x{:08X}", entry.plid)));
    line("committed", timeText(entry.committedMs));
    line("severity", named(fmt::format("0x{:02X}", entry.severity), severityText(entry.severity)));
    line("return code", fmt::format("0x{:08X}", entry.returnCode));
    line("process", fmt::format("{} ({})", escaped(entry.process), entry.processId));
    line("commit action", fmt::format("0x{:04X}", entry.commitAction));
    for (std::size_t index = 0; index < entry.srcs.size(); ++index) {
        showSrc(index, entry.srcs[index]);
    }
    for (const host::loggedCallout& callout : entry.callouts) {
        line("callout", fmt::format("priority {}, procedure {}", callout.priority,
                                    named(std::to_string(callout.procedure), procedureText(callout.procedure))));
    }
    for (const host::loggedFruCallout& callout : entry.fruCallouts) {
        line("part callout", fmt::format("priority {}, device number 0x{:04X}", callout.priority, callout.fru));
    }
    for (const host::loggedSoftwareError& error : entry.softwareErrors) {
        line("step failed",
             fmt::format("return code 0x{:08X}, module {}, site {}", error.returnCode,
                         named(std::to_string(error.word1), moduleText(error.component, error.word1)), error.word2));
    }
    for (const host::loggedDetails& details : entry.userDetails) {
        showDetails(details);
    }
    for (const host::loggedTrace& trace : entry.traces) {
        line("trace", escaped(trace.buffer));
        showLines(trace.text);
    }
    if (entry.incomplete) {
        line("incomplete", "an item is missing because there was no memory");
    }
}

} // namespace kest::tools
