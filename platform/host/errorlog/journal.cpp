#include "platform/host/errorlog/journal.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/component.h"
#include "base/descriptor.h"
#include "platform/host/errorlog/deviceof.h"
#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/text.h"
#include "platform/host/errorlog/waiting.h"

namespace kest::host
{

namespace
{

constexpr const char* systemSocket = "/run/systemd/journal/socket";
constexpr std::chrono::milliseconds patienceForJournal{200};
constexpr std::chrono::milliseconds journalPause{10};
/// Of one value: a datagram holds all of them.
constexpr std::size_t longestValue = 4096;

// Priorities of syslog.
constexpr int priorityError = 3;
constexpr int priorityNotice = 5;

/// Kind of an entry: who reports it. docs/host-services.md lists them; they stay.
struct entryKind {
    std::uint16_t component;
    const char* messageId;
};
constexpr std::array kinds{
    entryKind{componentLibrary, "91c132395bfcd6c71a39c3ee03905a2d"},
    entryKind{componentVpd, "cc03b569f6e929cfa1dcf9b7f6027c4b"},
    entryKind{componentRegistry, "2ba484acb7c4b03742ca30a391da5705"},
    entryKind{componentService, "640afc2901f98a070a83971ce3e719d1"},
    entryKind{componentTools, "1e651b8c30875cafd773918afe6eafaf"},
};
/// Of all other programs that link the library.
constexpr const char* otherMessageId = "1d61a54bdd001ec7cc6ace2f763f5a4c";

std::atomic<const char*> journalSocket{systemSocket};

const char* messageIdOf(std::uint16_t component)
{
    const auto kind = std::ranges::find(kinds, component, &entryKind::component);
    return kind == kinds.end() ? otherMessageId : kind->messageId;
}

/// @return `text`, which is valid UTF-8, or as many whole characters of it as a value may have
std::string_view bounded(std::string_view text)
{
    if (text.size() <= longestValue) {
        return text;
    }
    std::size_t length = longestValue;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
        --length;
    }
    return text.substr(0, length);
}

/// Adds a field. One without a value is left out.
void append(std::string& fields, std::string_view name, std::string_view value)
{
    if (value.empty()) {
        return;
    }
    value = bounded(value);
    fields += name;
    if (value.find('\n') == std::string_view::npos) {
        fields += '=';
    } else {
        fields += '\n';
        for (unsigned bits = 0; bits < 64; bits += 8) {
            fields += static_cast<char>(std::uint64_t{value.size()} >> bits & 0xFF);
        }
    }
    fields += value;
    fields += '\n';
}

/// The text with which the message service refused a request; empty in all other entries.
std::string refusalOf(const loggedEntry& facts)
{
    const auto found = std::ranges::find_if(facts.userDetails, [](const loggedDetails& details) {
        return details.component == componentService && details.subsection == detailsRefusal;
    });
    return found == facts.userDetails.end() ? std::string()
                                            : cleanText(std::string(found->bytes.begin(), found->bytes.end()));
}

/// One line for people.
std::string messageOf(const loggedEntry& facts, const std::string& device, std::uint32_t reason)
{
    const std::string refusal = refusalOf(facts);
    std::string what = !refusal.empty() ? refusal : device.empty() ? "a failure" : device + " failed";
    for (std::size_t at = what.find('\n'); at != std::string::npos; at = what.find('\n', at)) {
        what.replace(at, 1, "\\x0A");
    }
    return fmt::format("{} (reason 0x{:04X}): kestctl errors show 0x{:08X}", what, reason, facts.plid);
}

/// @return whether standard error is a connection to the journal, as JOURNAL_STREAM says: device and inode
bool goesToJournal()
{
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat facts {
    };
    return stream != nullptr && fstat(STDERR_FILENO, &facts) == 0 && S_ISSOCK(facts.st_mode) &&
           fmt::format("{}:{}", facts.st_dev, facts.st_ino) == stream;
}

void sendToJournal(std::string_view fields)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const char* path = journalSocket;
    std::memcpy(address.sun_path, path, std::min(std::strlen(path), sizeof address.sun_path - 1));
    const fileDescriptor datagrams(ownDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
    const patience wait(patienceForJournal);
    bool goesOn = datagrams.valid();
    while (goesOn) {
        const ssize_t sent = sendto(datagrams.number(), fields.data(), fields.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                    reinterpret_cast<const sockaddr*>(&address), sizeof address);
        const bool isFull = sent < 0 && (errno == EAGAIN || errno == ENOBUFS);
        goesOn = (sent < 0 && errno == EINTR) || (isFull && wait.pause(journalPause));
    }
}

} // namespace

std::string journalFields(const loggedEntry& facts, const loggedSrc& first)
{
    constexpr std::size_t reasonWord = 2;
    const std::uint32_t reason = first.words[reasonWord];
    const std::string device = deviceOf(facts);
    std::string fields;
    append(fields, "MESSAGE", messageOf(facts, device, reason));
    append(fields, "MESSAGE_ID", messageIdOf(facts.creator));
    append(fields, "PRIORITY",
           fmt::format("{}", facts.severity == informationalSeverity ? priorityNotice : priorityError));
    append(fields, "SYSLOG_IDENTIFIER", facts.process);
    append(fields, "KEST_LOG_ID", fmt::format("0x{:08X}", facts.plid));
    append(fields, "KEST_REASON", fmt::format("0x{:04X}", reason));
    append(fields, "KEST_RETURN_CODE", fmt::format("0x{:08X}", facts.returnCode));
    append(fields, "KEST_COMPONENT", fmt::format("0x{:04X}", facts.creator));
    append(fields, "KEST_DEVICE", device);
    return fields;
}

void tellJournal(const loggedEntry& facts, const loggedSrc& first) noexcept
{
    try {
        if (goesToJournal()) {
            sendToJournal(journalFields(facts, first));
        }
    } catch (const std::exception&) {
        // no memory: the log has the entry
        return;
    }
}

void useJournalSocket(const char* path) { journalSocket = path != nullptr ? path : systemSocket; }

} // namespace kest::host
