#include "platform/host/trace/reader.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <utility>

#include "base/descriptor.h"
#include "base/hex.h"
#include "platform/host/trace/formats.h"
#include "platform/host/trace/layout.h"
#include "platform/host/trace/parser.h"
#include "platform/host/trace/ringfile.h"

namespace kest::host
{
namespace
{

using namespace trace;

void appendEscaped(std::string& to, std::string_view text)
{
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte < 0x7F && byte != '\\') {
            to += character;
        } else {
            to += "\\x";
            appendHexByte(to, byte, lowerHexDigits);
        }
    }
}

/// Takes a record's arguments one after another. Past the end everything is missing.
class argumentReader
{
public:
    argumentReader(std::span<const std::uint8_t> bytes, bool foreign) : m_rest(bytes), m_foreign(foreign) {}

    [[nodiscard]] bool missing() const { return m_missing; }

    std::uint32_t number() { return take(sizeof(std::uint32_t)) ? loadWord(m_taken, m_foreign) : 0; }
    std::uint64_t wide() { return take(sizeof(std::uint64_t)) ? loadWide(m_taken, m_foreign) : 0; }

    /// Text up to its NUL.
    std::string_view text()
    {
        const auto end = std::ranges::find(m_rest, std::uint8_t{0});
        const auto length = static_cast<std::size_t>(end - m_rest.begin());
        const bool found = end != m_rest.end() && take(length + 1);
        m_missing = !found;
        return found ? std::string_view(reinterpret_cast<const char*>(m_taken), length) : std::string_view();
    }

    std::span<const std::uint8_t> bytes(std::size_t most)
    {
        const std::size_t count = std::min(most, m_rest.size());
        return take(count) ? std::span(m_taken, count) : std::span<const std::uint8_t>();
    }

private:
    bool take(std::size_t count)
    {
        m_missing = m_missing || count > m_rest.size();
        if (!m_missing) {
            m_taken = m_rest.data();
            m_rest = m_rest.subspan(count);
        }
        return !m_missing;
    }

    std::span<const std::uint8_t> m_rest;
    const std::uint8_t* m_taken = nullptr;
    bool m_foreign = false;
    bool m_missing = false;
};

std::int64_t signedValue(std::uint32_t number, lengthModifier modifier)
{
    switch (modifier) {
    case lengthModifier::charWide:
        return static_cast<std::int8_t>(number);
    case lengthModifier::shortWide:
        return static_cast<std::int16_t>(number);
    default:
        return static_cast<std::int32_t>(number);
    }
}

std::uint64_t unsignedValue(std::uint32_t number, lengthModifier modifier)
{
    switch (modifier) {
    case lengthModifier::charWide:
        return static_cast<std::uint8_t>(number);
    case lengthModifier::shortWide:
        return static_cast<std::uint16_t>(number);
    default:
        return number;
    }
}

/// A conversion for printf, made anew from its parts: nothing of a file's own format text reaches printf.
std::string printfConversion(const conversion& wanted, const char* letters)
{
    std::string made = "%";
    for (const auto& [given, flag] :
         {std::pair(wanted.leftAligned, '-'), std::pair(wanted.plus, '+'), std::pair(wanted.space, ' '),
          std::pair(wanted.alternate, '#'), std::pair(wanted.zeroPadded, '0')}) {
        if (given) {
            made += flag;
        }
    }
    if (wanted.widthGiven) {
        made += std::to_string(wanted.width);
    }
    if (wanted.precisionGiven) {
        made += '.';
        made += std::to_string(wanted.precision);
    }
    return made += letters;
}

template <typename Value>
std::string printed(const std::string& format, Value value)
{
    // wider than any width or precision with its digits
    std::array<char, 2 * maximumWidth + 64> buffer{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int length = std::snprintf(buffer.data(), buffer.size(), format.c_str(), value);
#pragma GCC diagnostic pop
    return {buffer.data(), std::min(static_cast<std::size_t>(std::max(length, 0)), buffer.size() - 1)};
}

std::string padded(std::string_view text, const conversion& wanted)
{
    std::string made(wanted.precisionGiven ? text.substr(0, static_cast<std::size_t>(wanted.precision)) : text);
    const auto width = static_cast<std::size_t>(wanted.width);
    if (made.size() < width) {
        made.insert(wanted.leftAligned ? made.size() : 0, width - made.size(), ' ');
    }
    return made;
}

std::string formatNumber(const conversion& wanted, argumentReader& arguments)
{
    const bool isWide = wanted.argument == argumentKind::wide;
    const std::uint64_t wide = isWide ? arguments.wide() : 0;
    const std::uint32_t number = isWide ? 0 : arguments.number();
    if (wanted.letter == 'c') {
        return padded(std::string(1, static_cast<char>(number)), wanted);
    }
    if (isSigned(wanted.letter)) {
        const long long value = isWide ? static_cast<std::int64_t>(wide) : signedValue(number, wanted.modifier);
        return printed(printfConversion(wanted, "lld"), value);
    }
    const unsigned long long value = isWide ? wide : unsignedValue(number, wanted.modifier);
    const char letters[5] = {'l', 'l', wanted.letter == 'p' ? 'x' : wanted.letter, '\0'};
    conversion shown = wanted;
    shown.alternate = wanted.alternate || wanted.letter == 'p';
    return printed(printfConversion(shown, letters), value);
}

/// Widths that travel as arguments become part of the conversion, as printf has it.
void takeWidths(conversion& wanted, argumentReader& arguments)
{
    if (wanted.widthIsArgument) {
        const auto width = static_cast<std::int32_t>(arguments.number());
        wanted.leftAligned = wanted.leftAligned || width < 0;
        wanted.widthGiven = true;
        wanted.width = static_cast<int>(std::min<std::int64_t>(width < 0 ? -std::int64_t{width} : width, maximumWidth));
    }
    if (wanted.precisionIsArgument) {
        const auto precision = static_cast<std::int32_t>(arguments.number());
        wanted.precisionGiven = precision >= 0;
        wanted.precision = std::min(std::max(precision, 0), maximumWidth);
    }
}

/// @return false when an argument is missing or the conversion is unknown
bool formatConversion(std::string& text, conversion wanted, argumentReader& arguments)
{
    std::string made;
    takeWidths(wanted, arguments);
    switch (wanted.argument) {
    case argumentKind::none:
        made += '%';
        break;
    case argumentKind::text:
        made = padded(arguments.text(), wanted);
        break;
    case argumentKind::number:
    case argumentKind::wide:
        made = formatNumber(wanted, arguments);
        break;
    case argumentKind::unknown:
        return false;
    }
    if (!arguments.missing()) {
        appendEscaped(text, made);
    }
    return !arguments.missing();
}

/// What cannot be formatted is shown as the rest of the format.
std::string formatText(argumentReader& arguments)
{
    const std::string format(arguments.text());
    std::string text;
    const char* at = format.c_str();
    bool usable = true;
    while (usable && *at != '\0') {
        const char* percent = std::strchr(at, '%');
        const char* end = percent == nullptr ? format.c_str() + format.size() : percent;
        appendEscaped(text, {at, end});
        at = end;
        if (percent != nullptr) {
            conversion wanted;
            const char* behind = parseConversion(percent + 1, wanted);
            usable = formatConversion(text, wanted, arguments);
            at = usable ? behind : percent;
        }
    }
    appendEscaped(text, at);
    return text;
}

constinit std::atomic<std::uint32_t> formatted{0};

/// A record that has its place in the order of time and no text yet.
struct foundRecord {
    laneBytes lane;
    recordPlace place;
    std::uint64_t timeNs = 0; ///< since 1970
};

traceRecord makeRecord(const foundRecord& found, const std::string& buffer)
{
    formatted.fetch_add(1, std::memory_order_relaxed);
    const bool foreign = found.lane.foreign;
    const recordBytesRead read = takeRecord(found.lane, found.place);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(read.words.data());
    const auto word = [bytes, foreign](std::size_t index) {
        return loadWord(bytes + index * sizeof(std::uint32_t), foreign);
    };
    const std::uint32_t kind = word(wordKind);
    argumentReader payload({bytes + recordHeadBytes, kind & 0xFFFF}, foreign);
    traceRecord record;
    record.timeNs = found.timeNs;
    record.thread = word(wordThread);
    record.hash = word(wordHash);
    record.line = word(wordLine);
    record.cut = (kind & kindCutFlag) != 0;
    record.binary = (kind >> 16 & 0xFF) == kindBinary;
    record.buffer = buffer;
    if (record.binary) {
        const std::uint32_t headerSize = payload.number();
        record.dataSize = payload.number();
        const auto header = payload.bytes(headerSize);
        const auto data = payload.bytes(record.dataSize);
        record.header.assign(header.begin(), header.end());
        record.data.assign(data.begin(), data.end());
    } else {
        record.text = formatText(payload);
    }
    return record;
}

/// A header's words in this machine's order.
struct headerReading {
    ringHeader header{};
    bool foreign = false;
    std::string trouble; ///< why the ring can't be read; empty when it can
};

std::string boundedText(const char* text, std::size_t size)
{
    std::string escaped;
    appendEscaped(escaped, {text, strnlen(text, size)});
    return escaped;
}

std::string cutShort(std::uint64_t bytes, std::uint64_t wanted)
{
    return "cut short: " + std::to_string(bytes) + " of " + std::to_string(wanted) + " bytes";
}

/// What keeps a ring of `bytes` bytes with this header, its words in this machine's order, from being read.
std::string headerTrouble(const ringHeader& header, std::uint64_t bytes)
{
    const std::uint64_t wanted = header.headerBytes + std::uint64_t{header.lanes} * header.laneStride;
    if (std::memcmp(header.magic, ringMagic, sizeof ringMagic) != 0) {
        return "not a trace ring";
    }
    if (header.order != orderMark || header.version != layoutVersion) {
        return "a trace ring of a version or byte order that is not known";
    }
    if (header.headerBytes < sizeof header || header.lanes == 0 || header.laneUnits == 0 ||
        header.laneUnits > maximumRingBytes / unitBytes ||
        header.laneStride < laneHeadBytes + header.laneUnits * unitBytes) {
        return "the numbers in its header don't fit together";
    }
    return wanted > bytes ? cutShort(bytes, wanted) : "";
}

headerReading readHeader(std::span<const std::uint8_t> image)
{
    headerReading read;
    ringHeader& header = read.header;
    if (image.size() < sizeof header) {
        read.trouble = cutShort(image.size(), sizeof header) + " of a header";
        return read;
    }
    if (std::ranges::all_of(image.first(sizeof header), [](std::uint8_t byte) { return byte == 0; })) {
        read.trouble = "its header is zeroed, or was never written";
        return read;
    }
    std::memcpy(&header, image.data(), sizeof header);
    read.foreign = header.order == __builtin_bswap32(orderMark);
    if (read.foreign) {
        for (std::uint32_t* word :
             {&header.order, &header.version, &header.headerBytes, &header.lanes, &header.laneStride, &header.laneUnits,
              &header.seed, &header.pid, &header.clockOffset[0], &header.clockOffset[1], &header.created[0],
              &header.created[1]}) {
            *word = __builtin_bswap32(*word);
        }
    }
    read.trouble = headerTrouble(header, image.size());
    return read;
}

/// The records of all lanes, oldest first. @param read  the image's header, usable
std::vector<foundRecord> findInOrder(std::span<const std::uint8_t> image, const headerReading& read)
{
    const ringHeader& header = read.header;
    const std::uint64_t clock = std::uint64_t{header.clockOffset[0]} << 32 | header.clockOffset[1];
    std::vector<foundRecord> records;
    for (std::uint32_t number = 0; number < header.lanes; ++number) {
        const std::uint8_t* bytes = image.data() + header.headerBytes + std::size_t{number} * header.laneStride;
        const laneBytes lane{bytes + laneHeadBytes, header.laneUnits, read.foreign};
        const laneRecords found = findRecords(lane, loadWord(bytes, read.foreign), header.seed);
        for (const recordPlace& place : found.places) {
            records.push_back({lane, place, timeOfRecord(lane, place) + clock});
        }
    }
    std::ranges::stable_sort(records, {}, &foundRecord::timeNs);
    return records;
}

ringInfo makeInfo(const ringHeader& header)
{
    ringInfo info;
    info.buffer = boundedText(header.bufferName, sizeof header.bufferName);
    info.processName = boundedText(header.processName, sizeof header.processName);
    info.pid = header.pid;
    info.createdNs = std::uint64_t{header.created[0]} << 32 | header.created[1];
    return info;
}

constexpr std::size_t maximumFileBytes = std::size_t{64} << 20;

struct fileBytes {
    std::vector<std::uint8_t> bytes;
    bool alive = false;
    int errorNumber = 0;
    std::string error;
};

/// Reads instead of mapping: a file that is cut short meanwhile must not end this process.
fileBytes loadFile(const std::filesystem::path& path, std::size_t most)
{
    fileBytes file;
    struct stat status {
    };
    const fileDescriptor descriptor(ownDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)));
    if (!descriptor.valid() || fstat(descriptor.number(), &status) != 0) {
        file.errorNumber = errno;
        file.error = std::strerror(file.errorNumber);
    } else if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) > maximumFileBytes) {
        file.error = "not a trace ring";
    } else {
        file.bytes.resize(std::min(most, static_cast<std::size_t>(status.st_size)));
        std::size_t done = 0;
        ssize_t got = 1;
        while (got > 0 && done < file.bytes.size()) {
            do {
                got = pread(descriptor.number(), file.bytes.data() + done, file.bytes.size() - done,
                            static_cast<off_t>(done));
            } while (got < 0 && errno == EINTR);
            done += got > 0 ? static_cast<std::size_t>(got) : 0;
        }
        file.bytes.resize(done);
        file.alive = trace::isWriterAlive(descriptor.number());
    }
    return file;
}

void appendHex(std::string& to, std::span<const std::uint8_t> bytes)
{
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        if (index % 4 == 0) {
            to += ' ';
        }
        appendHexByte(to, bytes[index], lowerHexDigits);
    }
}

/// Adds each file to the rings or to what is skipped; one that has gone, to neither.
void look(const std::vector<std::filesystem::path>& files, ringList& list)
{
    for (const std::filesystem::path& path : files) {
        const fileBytes loaded = loadFile(path, maximumFileBytes);
        const headerReading read = loaded.error.empty() ? readHeader(loaded.bytes) : headerReading{};
        const std::string& error = loaded.error.empty() ? read.trouble : loaded.error;
        ringInfo info = error.empty() ? makeInfo(read.header) : ringInfo{};
        info.file = path;
        info.alive = loaded.alive;
        if (error.empty()) {
            list.rings.push_back(std::move(info));
        } else if (loaded.errorNumber != ENOENT) {
            list.skipped.push_back({std::move(info), {}, error, loaded.errorNumber});
        }
    }
}

} // namespace

ringContents readRingImage(std::span<const std::uint8_t> image)
{
    ringContents contents;
    const headerReading read = readHeader(image);
    if (!read.trouble.empty()) {
        contents.error = read.trouble;
        return contents;
    }
    contents.info = makeInfo(read.header);
    for (const foundRecord& found : findInOrder(image, read)) {
        contents.records.push_back(makeRecord(found, contents.info.buffer));
    }
    return contents;
}

void readLatest(std::span<const std::uint8_t> image, const std::function<bool(const traceRecord&)>& wanted)
{
    const headerReading read = readHeader(image);
    if (!read.trouble.empty()) {
        return;
    }
    const std::string buffer = makeInfo(read.header).buffer;
    const std::vector<foundRecord> records = findInOrder(image, read);
    auto record = records.rbegin();
    while (record != records.rend() && wanted(makeRecord(*record, buffer))) {
        ++record;
    }
}

ringContents readRing(const std::filesystem::path& file)
{
    const fileBytes loaded = loadFile(file, maximumFileBytes);
    ringContents contents;
    if (loaded.error.empty()) {
        contents = readRingImage(loaded.bytes);
    }
    contents.error = loaded.error.empty() ? contents.error : loaded.error;
    contents.errorNumber = loaded.errorNumber;
    contents.info.file = file;
    contents.info.alive = loaded.alive;
    return contents;
}

std::vector<ringInfo> listRings(const std::filesystem::path& folder)
{
    return listRingsAndOthers(folder, nullptr).rings;
}

void waitForRings()
{
    // a ring takes less than one to make
    constexpr int ms = 50;
    poll(nullptr, 0, ms);
}

ringList listRingsAndOthers(const std::filesystem::path& folder, const std::function<void()>& pause)
{
    ringList list;
    std::vector<std::filesystem::path> files;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() == trace::ringFileSuffix) {
            files.push_back(entry->path());
        }
    }
    look(files, list);
    if (!list.skipped.empty() && pause != nullptr) {
        files.clear();
        std::ranges::transform(list.skipped, std::back_inserter(files),
                               [](const ringContents& skipped) { return skipped.info.file; });
        list.skipped.clear();
        pause();
        look(files, list);
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        ringContents& unread = list.skipped.emplace_back();
        unread.info.file = folder;
        unread.error = error.message();
        unread.errorNumber = error.value();
    }
    std::ranges::sort(list.rings, {},
                      [](const ringInfo& ring) { return std::tie(ring.pid, ring.createdNs, ring.buffer); });
    return list;
}

std::vector<traceRecord> readProcess(const std::filesystem::path& folder, std::uint32_t pid)
{
    std::vector<traceRecord> records;
    for (const ringInfo& ring : listRings(folder)) {
        if (ring.pid == pid) {
            std::vector<traceRecord> more = readRing(ring.file).records;
            records.insert(records.end(), std::move_iterator(more.begin()), std::move_iterator(more.end()));
        }
    }
    std::ranges::stable_sort(records, {}, &traceRecord::timeNs);
    return records;
}

std::uint32_t recordsFormatted() { return formatted.load(std::memory_order_relaxed); }

std::string renderRecord(const traceRecord& record, std::size_t dataBytes)
{
    // The time of day without the C library's calendar, whose mutex a fork beside it would leave locked in the child
    const auto seconds = static_cast<unsigned>(record.timeNs / 1'000'000'000u % 86400);
    const auto micros = static_cast<unsigned>(record.timeNs % 1'000'000'000u / 1000);
    std::array<char, 64> head{};
    std::snprintf(head.data(), head.size(), "%02u:%02u:%02u.%06u %u %08X %u", seconds / 3600, seconds / 60 % 60,
                  seconds % 60, micros, record.thread, record.hash, record.line);
    std::string line = head.data();
    if (record.binary) {
        const std::span<const std::uint8_t> shown(record.data.data(), std::min(dataBytes, record.data.size()));
        line += " data ";
        line += std::to_string(record.dataSize);
        line += ':';
        appendHex(line, shown);
        line += shown.size() < record.dataSize ? " ..." : "";
    } else {
        line += record.text.starts_with(' ') ? "" : " ";
        line += record.text;
        line += record.cut ? "..." : "";
    }
    return line;
}

} // namespace kest::host
