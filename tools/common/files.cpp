#include "tools/common/files.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fmt/core.h>
#include <memory>

#include "tools/common/escape.h"
#include "tools/common/failure.h"
#include "tools/common/number.h"
#include "tools/common/output.h"
#include "tools/common/outputfile.h"
#include "tools/common/preferences.h"

namespace kest::tools
{
namespace
{

struct closeFile {
    void operator()(std::FILE* file) const
    {
        if (file != stdin) {
            std::fclose(file);
        }
    }
};

int digitValue(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

} // namespace

std::vector<unsigned char> readInput(const std::string& name, std::size_t maximum)
{
    const std::unique_ptr<std::FILE, closeFile> file(name == "-" ? stdin : std::fopen(name.c_str(), "rb"));
    if (!file) {
        throw systemFailure(errno, "read", name);
    }
    std::vector<unsigned char> bytes;
    std::array<unsigned char, 4096> piece{};
    std::size_t count = 0;
    while ((count = std::fread(piece.data(), 1, piece.size(), file.get())) > 0) {
        bytes.insert(bytes.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(count));
        if (bytes.size() > maximum) {
            throw wrongUse(fmt::format("{} holds more than the {} bytes there is room for", name, maximum));
        }
    }
    if (std::ferror(file.get()) != 0) {
        throw systemFailure(errno, "read", name);
    }
    return bytes;
}

void writeOutput(const std::string& name, std::span<const unsigned char> bytes, bool force)
{
    if (name == "-") {
        if (standardOutput().terminal() && !force) {
            throw failure{.code = exitRefused,
                          .what = "raw bytes are not written to a terminal",
                          .tryThis = "name a file with -o, or give --force"};
        }
        if (!preferred().dryRun) {
            standardOutput().bytes(bytes);
        }
        return;
    }
    outputFile file(name);
    file.write(bytes);
    file.finish();
}

void tellOutput(const std::string& name, std::size_t bytes)
{
    if (preferred().dryRun) {
        standardOutput().text(fmt::format("{}: would be written, {}\n", name == "-" ? "standard output" : escaped(name),
                                          countText(bytes, "byte")));
    }
}

std::string hexLines(std::uint32_t offset, std::span<const unsigned char> bytes)
{
    constexpr std::size_t width = 16;
    std::string text;
    for (std::size_t start = 0; start < bytes.size(); start += width) {
        const auto row = bytes.subspan(start, std::min(width, bytes.size() - start));
        std::string digits;
        std::string letters;
        for (std::size_t index = 0; index < row.size(); ++index) {
            digits += fmt::format("{}{:02x}", index == width / 2 ? "  " : " ", row[index]);
            letters += row[index] >= 0x20 && row[index] < 0x7F ? static_cast<char>(row[index]) : '.';
        }
        text += fmt::format("{:08x} {:49}  |{}|\n", offset + start, digits, letters);
    }
    return text;
}

std::vector<unsigned char> parseHex(const std::string& digits, const std::string& what)
{
    std::vector<unsigned char> bytes;
    for (std::size_t at = 0; at < digits.size();) {
        if (digits[at] == ' ' || digits[at] == '\n' || digits[at] == '\t') {
            ++at;
            continue;
        }
        const int high = digitValue(digits[at]);
        const int low = at + 1 < digits.size() ? digitValue(digits[at + 1]) : -1;
        if (high < 0 || low < 0) {
            throw wrongUse(fmt::format("{}: two hexadecimal digits expected at character {}", what, at + 1));
        }
        bytes.push_back(static_cast<unsigned char>(high << 4 | low));
        at += 2;
    }
    return bytes;
}

} // namespace kest::tools
