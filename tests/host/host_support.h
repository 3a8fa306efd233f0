/// What the tests of the host's services share: a folder with its own kest.toml, and children that are killed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

#include "platform/errl.h"
#include "platform/host/errorlog/entry.h"
#include "platform/host/errorlog/store.h"
#include "tests/host/trace_support.h"
#include "tests/host/usedconfiguration.h"

namespace kest::test
{

/// A folder that is this process's whole configuration while it lives: `state` and the spool lie inside it.
class HostFolder
{
public:
    explicit HostFolder(const std::string& more = "");

    /// Writes kest.toml again and has the process read it. `more` names keys of the error log by their whole names.
    void configure(const std::string& more);
    std::filesystem::path write(const std::string& name, const std::string& text) const;
    [[nodiscard]] std::string read(const std::string& name) const;
    [[nodiscard]] const std::filesystem::path& path() const { return m_folder.path(); }
    [[nodiscard]] std::filesystem::path state(const std::string& name) const { return path() / "state" / name; }

private:
    std::filesystem::path writeConfiguration(const std::string& more) const;

    TemporaryFolder m_folder{TemporaryFolder::inMemory};
    UsedConfiguration m_used;
};

/// In a child of root: continues as a user without rights. @return whether the process now has none
bool dropRights();

/// Completes an entry as the library would. Its first user data word tells entries apart.
void fill(ErrlEntry& entry);

std::uint32_t commitEntry(std::uint32_t word, errlSeverity severity = ERRL_SEV_UNRECOVERED,
                          const std::string& details = "", unsigned short component = 0x1300);

/// First user data words of the entries in the log, the latest first.
std::vector<std::uint32_t> wordsInLog(const host::entryFilter& filter = {});

std::multiset<std::uint32_t> idsInLog();

/// Whether this build's log is a database; without one the spool file is the store.
bool hasDatabase(const HostFolder& folder);

/// Runs a child that calls `step(0)`, `step(1)`, ... and reports each result. Kills it in a later step, once `results`
/// have come. On a busy machine the kill can come late: the child waits when it is a few steps ahead of this process.
/// @return all results that the child reported
std::vector<std::uint32_t> killAfter(std::size_t results, const std::function<std::uint32_t(std::uint32_t)>& step);

} // namespace kest::test
