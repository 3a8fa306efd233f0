#include "tools/common/wearfile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <numeric>
#include <optional>
#include <span>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "base/crc32.h"
#include "base/descriptor.h"
#include "base/files.h"
#include "base/folders.h"

namespace kest::tools
{
namespace
{

using byteList = std::vector<std::uint8_t>;

/// A file has two slots, which are written in turn: one is whole at every moment.
constexpr std::size_t slotBytes = 4096;
constexpr std::size_t slots = 2;

constexpr std::array<std::uint8_t, 8> slotMark{'k', 'e', 's', 't', 'w', 'e', 'a', 'r'};
constexpr std::uint64_t slotVersion = 1;
// Offsets in a slot; all numbers are big-endian.
constexpr std::size_t offsetVersion = 8;
constexpr std::size_t offsetSequence = 12;
constexpr std::size_t offsetGroupBytes = 20;
constexpr std::size_t offsetGroups = 24;
constexpr std::size_t offsetPlaceBytes = 28;
constexpr std::size_t offsetPlace = 32;
constexpr std::size_t countBytes = 8;
constexpr std::size_t sumBytes = 4;
static_assert(offsetPlace + longestWearPlace + mostWearGroups * countBytes + sumBytes <= slotBytes);

constexpr mode_t fileMode = 0640;
constexpr std::chrono::milliseconds patience{1000};

void append(byteList& bytes, std::uint64_t number, std::size_t count)
{
    for (std::size_t at = count; at-- > 0;) {
        bytes.push_back(static_cast<std::uint8_t>(number >> (8 * at)));
    }
}

std::uint64_t get(std::span<const std::uint8_t> bytes, std::size_t offset, std::size_t count)
{
    std::uint64_t number = 0;
    for (const std::uint8_t byte : bytes.subspan(offset, count)) {
        number = number << 8 | byte;
    }
    return number;
}

struct wearSlot {
    std::uint64_t sequence = 0; ///< the higher one is the current one
    wearCounts counts;
};

byteList slotOf(const wearSlot& slot)
{
    const wearCounts& counts = slot.counts;
    byteList bytes(slotMark.begin(), slotMark.end());
    append(bytes, slotVersion, offsetSequence - offsetVersion);
    append(bytes, slot.sequence, offsetGroupBytes - offsetSequence);
    append(bytes, counts.groupBytes, offsetGroups - offsetGroupBytes);
    append(bytes, counts.groups.size(), offsetPlaceBytes - offsetGroups);
    append(bytes, counts.place.size(), offsetPlace - offsetPlaceBytes);
    bytes.insert(bytes.end(), counts.place.begin(), counts.place.end());
    for (const std::uint64_t count : counts.groups) {
        append(bytes, count, countBytes);
    }
    append(bytes, crc32(bytes), sumBytes);
    return bytes;
}

/// @return nothing for bytes that are no whole slot
std::optional<wearSlot> parseSlot(std::span<const std::uint8_t> bytes)
{
    if (bytes.size() < offsetPlace || !std::ranges::equal(bytes.first(slotMark.size()), slotMark) ||
        get(bytes, offsetVersion, offsetSequence - offsetVersion) != slotVersion) {
        return std::nullopt;
    }
    const auto groups = static_cast<std::size_t>(get(bytes, offsetGroups, offsetPlaceBytes - offsetGroups));
    const auto placeBytes = static_cast<std::size_t>(get(bytes, offsetPlaceBytes, offsetPlace - offsetPlaceBytes));
    if (groups > mostWearGroups || placeBytes > longestWearPlace) {
        return std::nullopt;
    }
    const std::size_t offsetSum = offsetPlace + placeBytes + groups * countBytes;
    if (bytes.size() < offsetSum + sumBytes || get(bytes, offsetSum, sumBytes) != crc32(bytes.first(offsetSum))) {
        return std::nullopt;
    }
    wearSlot slot{.sequence = get(bytes, offsetSequence, offsetGroupBytes - offsetSequence), .counts = {}};
    slot.counts.groupBytes = static_cast<std::uint32_t>(get(bytes, offsetGroupBytes, offsetGroups - offsetGroupBytes));
    const auto place = bytes.subspan(offsetPlace, placeBytes);
    slot.counts.place.assign(place.begin(), place.end());
    for (std::size_t at = offsetPlace + placeBytes; at < offsetSum; at += countBytes) {
        slot.counts.groups.push_back(get(bytes, at, countBytes));
    }
    return slot;
}

/// What a file holds.
struct wearContents {
    wearSlot current;
    std::size_t next = 0; ///< the slot to write now
};

/// @param like  place and groups that the counts must have. @return 0, EBADMSG or EEXIST
int parseFile(std::span<const std::uint8_t> file, const wearCounts& like, wearContents& found)
{
    found.current = {.sequence = 0, .counts = like};
    std::ranges::fill(found.current.counts.groups, 0U);
    bool any = file.empty();
    for (std::size_t number = 0; number < slots && number * slotBytes < file.size(); ++number) {
        const auto rest = file.subspan(number * slotBytes);
        const auto slot = parseSlot(rest.first(std::min(rest.size(), slotBytes)));
        if (slot && (!any || slot->sequence > found.current.sequence)) {
            found.current = *slot;
            found.next = 1 - number;
            any = true;
        }
    }
    const wearCounts& counts = found.current.counts;
    if (!any) {
        return EBADMSG;
    }
    const bool same = counts.place == like.place && counts.groupBytes == like.groupBytes &&
                      counts.groups.size() == like.groups.size();
    return same ? 0 : EEXIST;
}

/// Locks a file for as long as it lives.
class heldFile
{
public:
    explicit heldFile(fileDescriptor file) : m_file(std::move(file)) {}
    heldFile(const heldFile&) = delete;
    heldFile& operator=(const heldFile&) = delete;
    ~heldFile()
    {
        if (m_held) {
            flock(m_file.number(), LOCK_UN);
        }
    }
    /// @return 0 or an `errno` value
    int hold()
    {
        const auto until = std::chrono::steady_clock::now() + patience;
        while (flock(m_file.number(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR) {
                return errno;
            }
            if (std::chrono::steady_clock::now() >= until) {
                return ETIMEDOUT;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        m_held = true;
        return 0;
    }
    [[nodiscard]] int number() const { return m_file.number(); }

private:
    fileDescriptor m_file;
    bool m_held = false;
};

/// Opens or makes the file in an open folder; follows no link.
fileDescriptor openIn(int folder, const char* name)
{
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    for (;;) {
        fileDescriptor file(uninterrupted([&] { return ownDescriptor(openat(folder, name, flags)); }));
        if (file.valid() || errno != ENOENT) {
            return file;
        }
        file = createFileIn(folder, name, O_RDWR, fileMode);
        if (file.valid() || errno != EEXIST) {
            return file;
        }
    }
}

/// Reads the slots of a regular file.
int readSlots(int file, byteList& bytes)
{
    struct stat facts {
    };
    if (fstat(file, &facts) != 0) {
        return errno;
    }
    if (!S_ISREG(facts.st_mode)) {
        return ESPIPE;
    }
    bytes.resize(slots * slotBytes);
    const ssize_t count = uninterrupted([&] { return pread(file, bytes.data(), bytes.size(), 0); });
    bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return count < 0 ? errno : 0;
}

/// Whether the file at a name is still the open one: another process may have set that aside.
bool isStillThere(int folder, const char* name, int file)
{
    struct stat named {
    };
    struct stat open {
    };
    return fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && fstat(file, &open) == 0 &&
           named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

/// One attempt of addWear(). @return EAGAIN when the file was replaced meanwhile or set aside
int addOnce(int folder, const std::string& name, const wearCounts& more, wearCounts& counts, bool& setAside)
{
    heldFile file(openIn(folder, name.c_str()));
    if (file.number() < 0) {
        return errno;
    }
    if (const int error = file.hold(); error != 0) {
        return error;
    }
    if (!isStillThere(folder, name.c_str(), file.number())) {
        return EAGAIN;
    }
    byteList bytes;
    if (const int error = readSlots(file.number(), bytes); error != 0) {
        return error;
    }
    wearContents found;
    const int error = parseFile(bytes, more, found);
    if (error == EBADMSG && !setAside) {
        setAside = renameat(folder, name.c_str(), folder, (name + ".damaged").c_str()) == 0;
        return setAside ? EAGAIN : errno;
    }
    if (error != 0) {
        return error;
    }
    for (std::size_t group = 0; group < more.groups.size(); ++group) {
        found.current.counts.groups[group] += more.groups[group];
    }
    ++found.current.sequence;
    counts = found.current.counts;
    return writeAllAt(file.number(), slotOf(found.current), static_cast<off_t>(found.next * slotBytes));
}

} // namespace

std::uint64_t wearCounts::total() const { return std::accumulate(groups.begin(), groups.end(), std::uint64_t{0}); }

std::size_t wearCounts::busiest() const
{
    return static_cast<std::size_t>(std::ranges::max_element(groups) - groups.begin());
}

int readWear(const std::filesystem::path& file, wearCounts& counts)
{
    byteList bytes;
    const int error = readFile(file, slots * slotBytes, bytes);
    if (error != 0) {
        return error == ENOENT || error == ENOTDIR ? 0 : error;
    }
    wearContents found;
    if (const int wrong = parseFile(bytes, counts, found); wrong != 0) {
        return wrong;
    }
    counts = found.current.counts;
    return 0;
}

int addWear(const std::filesystem::path& file, const wearCounts& more, wearCounts& counts, bool& setAside)
{
    constexpr int mostAttempts = 10;
    setAside = false;
    const std::filesystem::path around = file.parent_path();
    if (const int error = makeFolders(around); error != 0) {
        return error;
    }
    const fileDescriptor folder = openFolder(around);
    if (!folder.valid()) {
        return errno;
    }
    int error = EAGAIN;
    for (int attempt = 0; attempt < mostAttempts && error == EAGAIN; ++attempt) {
        error = addOnce(folder.number(), file.filename().string(), more, counts, setAside);
    }
    return error;
}

} // namespace kest::tools
