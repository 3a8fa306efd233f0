#include "tests/sim/decoder.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

namespace kest::sim::test
{

namespace
{

/// Output of a shell command; its exit status is that of the shell.
std::string outputOf(const std::string& command, int& status)
{
    std::string text;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        std::array<char, 4096> part{};
        while (const std::size_t got = fread(part.data(), 1, part.size(), pipe)) {
            text.append(part.data(), got);
        }
        status = pclose(pipe);
    }
    return text;
}

// A '*' stands for the rest of the line.
const std::pair<std::string, std::string> tokens[] = {{"Start repeat", "Sr"},
                                                      {"Start", "S"},
                                                      {"Stop", "P"},
                                                      {"ACK", "A"},
                                                      {"NACK", "N"},
                                                      {"Address write: *", "W"},
                                                      {"Address read: *", "R"},
                                                      {"Data write: *", ""},
                                                      {"Data read: *", ""},
                                                      {"Write", ""},
                                                      {"Read", ""}};

std::string tokenOf(const std::string& line)
{
    const std::string event = line.starts_with("i2c-1: ") ? line.substr(7) : line;
    for (const auto& [pattern, text] : tokens) {
        if (event == pattern) {
            return text;
        }
        if (pattern.ends_with('*') && event.starts_with(pattern.substr(0, pattern.size() - 1))) {
            return text + event.substr(pattern.size() - 1);
        }
    }
    return "?" + line;
}

} // namespace

bool hasDecoder()
{
    int status = -1;
    outputOf("sigrok-cli --version 2>&1", status);
    if (status != 0) {
        EXPECT_EQ(nullptr, getenv("KEST_REQUIRE_SIGROK")) << "sigrok-cli is not installed";
    }
    return status == 0;
}

void needDecoder()
{
    if (!hasDecoder()) {
        GTEST_SKIP() << "sigrok-cli is not installed: waveforms are not decoded";
    }
}

std::string decode(const std::filesystem::path& waveform, const std::string& options)
{
    int status = -1;
    const std::string text =
        outputOf("sigrok-cli -I vcd -i " + waveform.string() + " -P i2c:scl=SCL:sda=SDA" + options + " 2>&1", status);
    EXPECT_EQ(0, status);
    return text;
}

std::string seenIn(const std::filesystem::path& waveform)
{
    std::istringstream lines{decode(waveform, " -A i2c=addr-data")};
    std::string line, all;
    while (std::getline(lines, line)) {
        const std::string token = tokenOf(line);
        if (!token.empty()) {
            all += (all.empty() ? "" : " ") + token;
        }
    }
    return all;
}

} // namespace kest::sim::test
