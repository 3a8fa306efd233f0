/// The text of arguments in the log.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "tests/platform/state.h"

namespace scripted
{
namespace
{

std::string printed(const char* format, unsigned value)
{
    std::array<char, 24> out{};
    std::snprintf(out.data(), out.size(), format, value); // NOLINT: the formats are below
    return out.data();
}

std::string spaced(const std::uint8_t* data, std::size_t n)
{
    std::string out;
    for (std::size_t i = 0; i < n; ++i) {
        out += printed(" %02x", data[i]);
    }
    return out;
}

} // namespace

Bytes hex(std::string_view digits)
{
    Bytes out;
    std::string clean;
    std::ranges::copy_if(digits, std::back_inserter(clean), [](unsigned char c) { return std::isxdigit(c) != 0; });
    for (std::size_t i = 0; i + 1 < clean.size(); i += 2) {
        out.push_back(static_cast<std::uint8_t>(std::stoi(clean.substr(i, 2), nullptr, 16)));
    }
    return out;
}

Bytes text(std::string_view text) { return {text.begin(), text.end()}; }

Bytes word(std::uint32_t value)
{
    Bytes out(sizeof value);
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

Bytes counting(std::size_t count, std::uint8_t first)
{
    Bytes out(count);
    std::ranges::generate(out, [&first] { return first++; });
    return out;
}

std::string hexText(std::uint32_t value) { return printed("0x%X", value); }

std::string quoted(std::string_view text)
{
    std::string out = "\"";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '"' || character == '\\') {
            out += '\\';
            out += character;
        } else if (character == '\n') {
            out += "\\n";
        } else if (byte < 0x20 || byte >= 0x7F) {
            out += printed("\\x%02x", byte);
        } else {
            out += character;
        }
    }
    return out + '"';
}

std::string quoted(const char* text) { return text == nullptr ? "null" : quoted(std::string_view{text}); }

std::string bytesText(const std::uint8_t* data, std::size_t n)
{
    std::string out = std::to_string(n) + (n == 1 ? " byte" : " bytes");
    if (n == 0) {
        return out;
    }
    if (n <= 64) {
        return out + ":" + spaced(data, n);
    }
    std::uint32_t sum = 0x811C9DC5;
    for (std::size_t i = 0; i < n; ++i) {
        sum = (sum ^ data[i]) * 0x01000193U;
    }
    return out + ":" + spaced(data, 32) + " .." + spaced(data + n - 8, 8) + " sum " + hexText(sum);
}

std::string srcText(const Src& src)
{
    std::string out = "SRC module " + std::to_string(src.module) + " reason " + hexText(src.reason) + " words " +
                      hexText(src.word1) + " " + hexText(src.word2) + " " + hexText(src.word3) + " " +
                      hexText(src.word4) + " subsystem " + hexText(src.subsystem);
    const Src usual{};
    if (src.component != usual.component) {
        out += " component " + hexText(src.component);
    }
    if (src.type != usual.type || src.flags != usual.flags || src.serviceCode != usual.serviceCode) {
        out += " type " + hexText(src.type) + " flags " + hexText(src.flags) + " service " + hexText(src.serviceCode);
    }
    return out;
}

void PrintTo(const Src& src, std::ostream* stream) { *stream << srcText(src); }

std::string detailsText(const Bytes& data, std::uint8_t subsection)
{
    // in the order of the library's address list
    struct Node {
        std::uint8_t address;
        std::uint32_t type;
        std::uint8_t port;
        void* next;
    };
    if (subsection == 1 && !data.empty() && data.size() % sizeof(Node) == 0) {
        std::string out = "list";
        for (std::size_t at = 0; at < data.size(); at += sizeof(Node)) {
            Node node{};
            std::memcpy(&node, data.data() + at, sizeof node);
            out += " " + hexText(node.address) + "/" + hexText(node.type) + "/" + std::to_string(node.port);
        }
        return out;
    }
    const bool printable =
        !data.empty() && std::ranges::all_of(data, [](std::uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
    return printable && data.size() <= 200 ? quoted({reinterpret_cast<const char*>(data.data()), data.size()})
                                           : bytesText(data.data(), data.size());
}

std::vector<Bytes> EntryRecord::details(std::uint8_t subsection) const
{
    std::vector<Bytes> out;
    for (const UserDetails& block : userDetails) {
        if (block.subsection == subsection) {
            out.push_back(block.data);
        }
    }
    return out;
}

std::string EntryRecord::text() const
{
    std::string out = "\n";
    const auto add = [&out](const std::string& line) { out += line + "\n"; };
    for (const Src& src : srcs) {
        add(srcText(src));
    }
    if (returnCode) {
        add("rc " + hexText(*returnCode));
    }
    if (severity != ERRL_SEV_UNRECOVERED) {
        add("severity " + hexText(severity));
    }
    for (const Callout& callout : callouts) {
        add("callout " + std::to_string(callout.priority) + " " + std::to_string(callout.id));
    }
    for (const UserDetails& block : userDetails) {
        const bool usual = block.version == 1 && block.component == 0x1300;
        add("details " + std::to_string(block.subsection) + " " + detailsText(block.data, block.subsection) +
            (usual ? "" : " version " + std::to_string(block.version) + " component " + hexText(block.component)));
    }
    for (const SoftwareError& error : softwareErrors) {
        add("software error " + hexText(error.returnCode) + " " + std::to_string(error.word1) + " " +
            std::to_string(error.word2));
    }
    for (const Callout& callout : fruCallouts) {
        add("FRU " + std::to_string(callout.priority) + " " + hexText(callout.id));
    }
    for (const Commit& commit : commits) {
        add("commit " + hexText(commit.component) + " " + hexText(commit.action));
    }
    return out;
}

} // namespace scripted
