/// What the tests of the host's services share: a folder with a kest.toml of its own, and children to be killed.
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

    /// Writes kest.toml anew and makes it the process's. `more` names keys of the error log by their whole names.
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

/// In a child of root: goes on as a user without rights. @return whether the process now has none
bool dropRights();

/// An entry as the library makes them, told apart by its first user data word.
void fill(ErrlEntry& entry);

std::uint32_t commitEntry(std::uint32_t word, errlSeverity severity = ERRL_SEV_UNRECOVERED,
                          const std::string& details = "", unsigned short component = 0x1300);

/// First user data words of the entries in the log, the latest first.
std::vector<std::uint32_t> wordsInLog(const host::entryFilter& filter = {});

std::multiset<std::uint32_t> idsInLog();

/// Whether this build's log is a database; without one the spool file is the store.
bool hasDatabase(const HostFolder& folder);

/// Runs a child that calls `step(0)`, `step(1)`, ... and tells what each answered; kills it once `answers` came,
/// somewhere in a later step. On a busy machine the death can come late: the child waits when it is a few steps ahead
/// of what was heard of it.
/// @return all answers that it told
std::vector<std::uint32_t> killAfter(std::size_t answers, const std::function<std::uint32_t(std::uint32_t)>& step);

} // namespace kest::test
