/// The file of a recording.
#pragma once

#include <cstdint>
#include <string>

namespace kest::sim
{

/// Opens or makes the file of a recording, and leaves its content alone.
/// @return a descriptor, or -1 with `errno`: EEXIST when the file holds anything but a waveform
int openWaveFile(const std::string& path);

/// Whether openWaveFile() would have a descriptor. Makes no file. @return false with `errno`
bool mayOpenWaveFile(const std::string& path);

/// Makes `text` the whole content of a file. What needs new space is written first, behind the old content: when there
/// is none, the file is left as it was.
/// @return false with `errno`
bool replaceWave(int file, const std::string& text);

/// Appends a text to the file of a recording. A file that is not regular, holds anything but a waveform, or is shorter
/// than the recording stays as it is.
/// @param[in,out] length  bytes of the recording; what the file holds behind them is the tail of the text before, or
/// the rest of a killed process's text
/// @param tail  ends the file until the next text takes its place
/// @return false when the file would not take it, is gone or cut, or is no waveform
bool appendToWaveFile(const std::string& path, std::uint64_t& length, const std::string& text, const std::string& tail);

} // namespace kest::sim
