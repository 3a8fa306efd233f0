/// confine [--kill] UNIT SETS UID GID GROUP PROGRAM [ARGUMENT...]
///
/// Runs a program as the service manager runs it under the unit: as a user without rights, and under the same filters
/// of system calls. With --kill a call that the unit's SystemCallFilter refuses ends the program (SIGSYS), so that no
/// such call is missed.
///   UNIT   the unit's file. A line of [Service] that this program does not know is an error: it must not lag behind
///   SETS   the sets of system calls, as `systemd-analyze syscall-filter` prints them
///   GROUP  the supplementary group of the program
/// What the unit says of folders, devices, network and memory is not applied here.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using Setting = std::pair<std::string, std::string>;
using Names = std::set<std::string>;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

void require(bool good, const char* what)
{
    if (!good) {
        fail(std::string(what) + ": " + std::strerror(errno));
    }
}

std::vector<Setting> settingsOf(const std::string& unit)
{
    std::ifstream file(unit);
    std::vector<Setting> settings;
    bool inService = false;
    for (std::string line; std::getline(file, line);) {
        const std::size_t equals = line.find('=');
        if (line.starts_with('[')) {
            inService = line == "[Service]";
        } else if (inService && !line.starts_with('#') && equals != std::string::npos) {
            settings.emplace_back(line.substr(0, equals), line.substr(equals + 1));
        }
    }
    return settings;
}

std::map<std::string, std::vector<std::string>> readSets(const std::string& path)
{
    std::ifstream file(path);
    std::map<std::string, std::vector<std::string>> sets;
    std::string current;
    for (std::string line; std::getline(file, line);) {
        const std::size_t begin = line.find_first_not_of(' ');
        if (begin == std::string::npos || line[begin] == '#') {
            continue;
        }
        if (begin == 0) {
            current = line;
        } else {
            sets[current].push_back(line.substr(begin));
        }
    }
    return sets;
}

/// The system calls of a set, with those of the sets in it; of a call, the call alone.
Names callsOf(const std::map<std::string, std::vector<std::string>>& sets, const std::string& name)
{
    Names calls;
    if (!name.starts_with('@')) {
        calls.insert(name);
    } else if (!sets.contains(name)) {
        fail("there is no set " + name);
    } else {
        for (const std::string& member : sets.at(name)) {
            calls.merge(callsOf(sets, member));
        }
    }
    return calls;
}

/// One filter. The kernel asks every loaded filter and takes the strictest result.
class Filter
{
public:
    explicit Filter(std::uint32_t otherwise) : m_context(seccomp_init(otherwise))
    {
        require(m_context != nullptr, "seccomp_init");
    }
    Filter(const Filter&) = delete;
    Filter& operator=(const Filter&) = delete;
    ~Filter() { seccomp_release(m_context); }

    /// Calls that this architecture doesn't have are left out.
    void add(std::uint32_t action, const std::string& call, const std::vector<scmp_arg_cmp>& conditions = {})
    {
        const int number = seccomp_syscall_resolve_name(call.c_str());
        if (number >= 0) {
            const int error = seccomp_rule_add_array(m_context, action, number,
                                                     static_cast<unsigned int>(conditions.size()), conditions.data());
            errno = -error;
            require(error == 0, call.c_str());
        }
    }
    void refuse(const std::string& call, const std::vector<scmp_arg_cmp>& conditions = {})
    {
        add(SCMP_ACT_ERRNO(EPERM), call, conditions);
    }
    void load()
    {
        const int error = seccomp_load(m_context);
        errno = -error;
        require(error == 0, "seccomp_load");
    }

private:
    scmp_filter_ctx m_context;
};

scmp_arg_cmp equal(unsigned int argument, std::uint64_t value) { return {argument, SCMP_CMP_EQ, value, 0}; }
scmp_arg_cmp above(unsigned int argument, std::uint64_t value) { return {argument, SCMP_CMP_GT, value, 0}; }
scmp_arg_cmp has(unsigned int argument, std::uint64_t bits) { return {argument, SCMP_CMP_MASKED_EQ, bits, bits}; }

void restrictNamespaces()
{
    Filter calls(SCMP_ACT_ALLOW);
    for (const int kind :
         {CLONE_NEWNS, CLONE_NEWUTS, CLONE_NEWIPC, CLONE_NEWUSER, CLONE_NEWPID, CLONE_NEWNET, CLONE_NEWCGROUP}) {
        calls.refuse("unshare", {has(0, static_cast<std::uint64_t>(kind))});
        calls.refuse("clone", {has(0, static_cast<std::uint64_t>(kind))});
    }
    calls.refuse("setns");
    // its flags can't be seen
    calls.add(SCMP_ACT_ERRNO(ENOSYS), "clone3");
    calls.load();
}

void restrictAddressFamilies(const std::string& families)
{
    if (families != "AF_UNIX") {
        fail("only AF_UNIX is known here: " + families);
    }
    Filter calls(SCMP_ACT_ALLOW);
    calls.add(SCMP_ACT_ERRNO(EAFNOSUPPORT), "socket", {equal(0, AF_UNSPEC)});
    calls.add(SCMP_ACT_ERRNO(EAFNOSUPPORT), "socket", {above(0, AF_UNIX)});
    calls.load();
}

void denyWriteExecute()
{
    Filter calls(SCMP_ACT_ALLOW);
    calls.refuse("mmap", {has(2, PROT_EXEC | PROT_WRITE)});
    calls.refuse("mprotect", {has(2, PROT_EXEC)});
    calls.refuse("pkey_mprotect", {has(2, PROT_EXEC)});
    calls.refuse("shmat", {has(2, SHM_EXEC)});
    calls.load();
}

void restrictRealtime()
{
    Filter calls(SCMP_ACT_ALLOW);
    for (const int policy : {SCHED_FIFO, SCHED_RR, 4}) {
        calls.refuse("sched_setscheduler", {equal(1, static_cast<std::uint64_t>(policy))});
    }
    calls.refuse("sched_setscheduler", {above(1, SCHED_IDLE)});
    calls.load();
}

void restrictSetIds()
{
    Filter calls(SCMP_ACT_ALLOW);
    for (const std::uint64_t bit : {std::uint64_t{S_ISUID}, std::uint64_t{S_ISGID}}) {
        for (const char* call : {"chmod", "fchmod", "mkdir", "mknod", "creat"}) {
            calls.refuse(call, {has(1, bit)});
        }
        for (const char* call : {"fchmodat", "mkdirat", "mknodat"}) {
            calls.refuse(call, {has(2, bit)});
        }
        calls.refuse("open", {has(1, O_CREAT), has(2, bit)});
        calls.refuse("openat", {has(2, O_CREAT), has(3, bit)});
    }
    calls.add(SCMP_ACT_ERRNO(ENOSYS), "openat2");
    calls.load();
}

void lockPersonality()
{
    Filter calls(SCMP_ACT_ALLOW);
    const auto now = static_cast<std::uint64_t>(personality(0xFFFFFFFF));
    calls.refuse("personality", {{0, SCMP_CMP_NE, now, 0}});
    calls.load();
}

void refuseAll(const Names& refused)
{
    Filter calls(SCMP_ACT_ALLOW);
    for (const std::string& call : refused) {
        calls.refuse(call);
    }
    calls.load();
}

/// The value of SystemCallFilter: its first line names what is allowed, later ones that begin with ~ take from it.
void allowOnly(const std::map<std::string, std::vector<std::string>>& sets, const std::vector<std::string>& lines,
               std::uint32_t refusal)
{
    Names allowed = callsOf(sets, "@default");
    for (const std::string& line : lines) {
        const bool removes = line.starts_with('~');
        std::istringstream words(line.substr(removes ? 1 : 0));
        for (std::string word; words >> word;) {
            for (const std::string& call : callsOf(sets, word)) {
                removes ? static_cast<void>(allowed.erase(call)) : static_cast<void>(allowed.insert(call));
            }
        }
    }
    // for calls that the service manager has never heard of
    Filter calls(SCMP_ACT_ERRNO(ENOSYS));
    for (const std::string& call : allowed) {
        calls.add(SCMP_ACT_ALLOW, call);
    }
    for (const std::string& call : callsOf(sets, "@known")) {
        if (!allowed.contains(call)) {
            calls.add(refusal, call);
        }
    }
    calls.load();
}

/// Lines that filter no system calls, or that this program does not apply.
const Names otherLines{"Type",
                       "NotifyAccess",
                       "ExecStart",
                       "ExecReload",
                       "Restart",
                       "RestartPreventExitStatus",
                       "WatchdogSec",
                       "TimeoutStopSec",
                       "User",
                       "Group",
                       "SupplementaryGroups",
                       "StateDirectory",
                       "StateDirectoryMode",
                       "DevicePolicy",
                       "DeviceAllow",
                       "ReadWritePaths",
                       "ProtectSystem",
                       "ProtectHome",
                       "PrivateNetwork",
                       "IPAddressDeny",
                       "PrivateMounts",
                       "RemoveIPC",
                       "ProtectProc",
                       "ProcSubset",
                       "ProtectControlGroups",
                       "NoNewPrivileges",
                       "CapabilityBoundingSet",
                       "AmbientCapabilities",
                       "SystemCallArchitectures", // native: libseccomp makes filters for no other
                       "LimitCORE",
                       "MemoryMax",
                       "TasksMax"};

void applyFilters(const std::vector<Setting>& settings, const std::map<std::string, std::vector<std::string>>& sets,
                  bool kills)
{
    std::vector<std::string> lines;
    std::uint32_t refusal = SCMP_ACT_KILL_PROCESS;
    for (const auto& [key, value] : settings) {
        if (key == "UMask") {
            umask(static_cast<mode_t>(std::stoul(value, nullptr, 8)));
        } else if (key == "SystemCallFilter") {
            lines.push_back(value);
        } else if (key == "SystemCallErrorNumber" && value == "EPERM") {
            refusal = kills ? refusal : SCMP_ACT_ERRNO(EPERM);
        } else if (key == "RestrictAddressFamilies") {
            restrictAddressFamilies(value);
        } else if (otherLines.contains(key)) {
            continue;
        } else if (value != "yes") {
            fail("not known here: " + key + " with another value than yes");
        } else if (key == "RestrictNamespaces") {
            restrictNamespaces();
        } else if (key == "MemoryDenyWriteExecute") {
            denyWriteExecute();
        } else if (key == "RestrictRealtime") {
            restrictRealtime();
        } else if (key == "RestrictSUIDSGID") {
            restrictSetIds();
        } else if (key == "LockPersonality") {
            lockPersonality();
        } else if (key == "ProtectClock") {
            refuseAll(callsOf(sets, "@clock"));
        } else if (key == "ProtectHostname") {
            refuseAll({"sethostname", "setdomainname"});
        } else if (key == "ProtectKernelLogs") {
            refuseAll({"syslog"});
        } else if (key == "ProtectKernelModules") {
            refuseAll(callsOf(sets, "@module"));
        } else if (key == "ProtectKernelTunables") {
            refuseAll({"_sysctl"});
        } else {
            fail("not known here: " + key);
        }
    }
    // the last one: it refuses any further filter
    allowOnly(sets, lines, refusal);
}

void dropRights(uid_t user, gid_t group, gid_t supplementary)
{
    const rlimit none{0, 0};
    int capability = 0;
    while (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0) {
        ++capability;
    }
    require(setrlimit(RLIMIT_CORE, &none) == 0, "setrlimit");
    require(setgroups(1, &supplementary) == 0, "setgroups");
    require(setresgid(group, group, group) == 0, "setresgid");
    // takes all capabilities with it
    require(setresuid(user, user, user) == 0, "setresuid");
    require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "no_new_privs");
}

} // namespace

int main(int count, char** words)
{
    std::vector<char*> arguments(words + 1, words + count);
    const bool kills = !arguments.empty() && std::string(arguments.front()) == "--kill";
    arguments.erase(arguments.begin(), arguments.begin() + (kills ? 1 : 0));
    constexpr std::size_t own = 5;
    if (arguments.size() <= own) {
        std::fputs("usage: confine [--kill] UNIT SETS UID GID GROUP PROGRAM [ARGUMENT...]\n", stderr);
        return 2;
    }
    try {
        const auto settings = settingsOf(arguments[0]);
        const auto sets = readSets(arguments[1]);
        if (settings.empty() || sets.empty()) {
            fail("unit or sets can't be read");
        }
        dropRights(static_cast<uid_t>(std::stoul(arguments[2])), static_cast<gid_t>(std::stoul(arguments[3])),
                   static_cast<gid_t>(std::stoul(arguments[4])));
        applyFilters(settings, sets, kills);
    } catch (const std::exception& trouble) {
        std::fprintf(stderr, "confine: %s\n", trouble.what());
        return 2;
    }
    arguments.push_back(nullptr);
    execv(arguments[own], arguments.data() + own);
    std::perror("confine: execv");
    return 2;
}
