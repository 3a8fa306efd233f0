/// Waveforms as independent logic-analyser software decodes them.
#pragma once

#include <filesystem>
#include <string>

namespace kest::sim::test
{

/// Whether the software is installed. The test fails when it has to be and is not.
bool hasDecoder();

/// Skips the test that runs when the software is not installed, or fails it when it has to be.
void needDecoder();

/// What the software prints. @param options  of its i2c decoder and of what follows it
std::string decode(const std::filesystem::path& waveform, const std::string& options);

/// What its i2c decoder sees, one token for each event: S, Sr, P, W50, R50, A, N, and bytes in hexadecimal.
std::string seenIn(const std::filesystem::path& waveform);

} // namespace kest::sim::test
