/// The demo machine that a new user starts from.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace kest::sim
{

/// Text of the demo machine's machine.toml: one bus "planar" with every type of chip, and two chips behind a hub.
extern const char* const demoMachineText;

/// Makes the folder where needed and writes a machine's machine.toml and images into it. Existing files are not touched.
/// @param text      of machine.toml
/// @param contents  bytes at the start of an image by its file name; the rest of each image is 0xFF
/// Throws std::runtime_error when the folder has a machine.toml already, the text is not in order, a name or size in
/// `contents` fits no chip, or a file can't be written.
void writeMachine(const std::filesystem::path& folder, const std::string& text,
                  const std::map<std::string, std::vector<std::uint8_t>>& contents);

/// The same for the demo machine.
void writeDemoMachine(const std::filesystem::path& folder,
                      const std::map<std::string, std::vector<std::uint8_t>>& contents);

} // namespace kest::sim
