#include "tests/host/host_support.h"

#include <array>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/wait.h>

#include "platform/host/configuration/configuration.h"

namespace kest::test
{

HostFolder::HostFolder(const std::string& more) : m_used(writeConfiguration(more)) {}

void HostFolder::configure(const std::string& more)
{
    writeConfiguration(more);
    EXPECT_EQ("", host::reloadConfiguration());
}

std::filesystem::path HostFolder::writeConfiguration(const std::string& more) const
{
    return write("kest.toml", "state = \"state\"\nerrorlog.spool = \"spool\"\n" + more);
}

std::filesystem::path HostFolder::write(const std::string& name, const std::string& text) const
{
    std::ofstream(path() / name, std::ios::binary) << text;
    return path() / name;
}

std::string HostFolder::read(const std::string& name) const
{
    std::ifstream file(path() / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool dropRights()
{
    constexpr uid_t nobody = 65534;
    return geteuid() != 0 || (setresgid(nobody, nobody, nobody) == 0 && setresuid(nobody, nobody, nobody) == 0);
}

void fill(ErrlEntry& entry)
{
    entry.setRC(0x80001312);
    entry.addProcedureCallout(SRCI_PRIORITY_HIGH, EPUB_PROCEDURE_IIC);
}

std::uint32_t commitEntry(std::uint32_t word, errlSeverity severity, const std::string& details,
                          unsigned short component)
{
    ErrlEntry entry(component, severity, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0, 13, SERVICE_CODE_KEST, 0x1312,
                    word, 0, 0, 0, EPUB_SUBSYSTEM_IIC_DEVICE, SRCI_TERM_NONE);
    fill(entry);
    if (!details.empty()) {
        entry.addUsrDtls(details.data(), static_cast<unsigned short>(details.size()), component, 1, 2);
    }
    entry.commit(component, ERRL_ACTION_REPORT);
    return entry.plid();
}

std::vector<std::uint32_t> wordsInLog(const host::entryFilter& filter)
{
    std::vector<std::uint32_t> words;
    const host::entryList list = host::listEntries(filter);
    EXPECT_EQ("", list.error);
    for (const host::loggedEntry& entry : list.entries) {
        words.push_back(entry.srcs.at(0).words[4]);
    }
    return words;
}

std::multiset<std::uint32_t> idsInLog()
{
    std::multiset<std::uint32_t> ids;
    const host::entryList list = host::listEntries();
    EXPECT_EQ("", list.error);
    for (const host::loggedEntry& entry : list.entries) {
        ids.insert(entry.plid);
    }
    return ids;
}

bool hasDatabase(const HostFolder& folder)
{
    commitEntry(0);
    const bool found = std::filesystem::exists(folder.state("errors.db"));
    EXPECT_EQ("", host::clearEntries());
    return found;
}

std::vector<std::uint32_t> killAfter(std::size_t results, const std::function<std::uint32_t(std::uint32_t)>& step)
{
    // the steps by which the child may be ahead
    constexpr std::array<char, 8> steps{};
    std::array<int, 2> ends{};
    std::array<int, 2> permits{};
    EXPECT_EQ(0, pipe(ends.data()));
    EXPECT_EQ(0, pipe(permits.data()));
    EXPECT_EQ(ssize_t{steps.size()}, write(permits[1], steps.data(), steps.size()));
    const pid_t child = fork();
    if (child == 0) {
        char permit = 0;
        close(ends[0]);
        close(permits[1]);
        for (std::uint32_t number = 0; read(permits[0], &permit, 1) == 1; ++number) {
            const std::uint32_t result = step(number);
            if (write(ends[1], &result, sizeof result) != sizeof result) {
                break;
            }
        }
        _exit(1);
    }
    close(ends[1]);
    std::vector<std::uint32_t> reported;
    std::uint32_t result = 0;
    while (read(ends[0], &result, sizeof result) == sizeof result) {
        reported.push_back(result);
        if (reported.size() < results) {
            EXPECT_EQ(1, write(permits[1], steps.data(), 1));
        } else if (reported.size() == results) {
            kill(child, SIGKILL);
        }
    }
    for (const int end : {ends[0], permits[0], permits[1]}) {
        close(end);
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    return reported;
}

} // namespace kest::test
