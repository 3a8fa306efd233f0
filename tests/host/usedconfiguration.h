/// A configuration for this process, as long as an object lives.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace kest::test
{

/// Has this process read `file` as its kest.toml; at the end it uses the former one again.
class UsedConfiguration
{
public:
    explicit UsedConfiguration(const std::filesystem::path& file);
    UsedConfiguration(const UsedConfiguration&) = delete;
    UsedConfiguration& operator=(const UsedConfiguration&) = delete;
    ~UsedConfiguration();

private:
    std::optional<std::string> m_before;
};

} // namespace kest::test
