/// The error log: entries and their SRCs. The latest 64 committed ones stay in memory, as text.
#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <new>
#include <string_view>

#include "minimal.h"
#include "platform/errl.h"

namespace
{

constexpr std::size_t srcsMax = 5; ///< of an entry
using committedEntry = std::pair<std::uint32_t, std::string>; ///< log id and text
constinit std::size_t commits = 0;
constinit std::mutex logging;
// A board keeps this number across restarts: no two entries may ever share a log id.
constinit std::atomic<std::uint32_t> lastLogId{0};

/// Made at its first use, which may be before main().
std::array<committedEntry, 64>& committed()
{
    static std::array<committedEntry, 64> entries;
    return entries;
}

/// Nothing in the error log throws: without memory an item is left out.
/// @return false without memory
bool tried(auto call) noexcept
{
    try {
        call();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

} // namespace

struct SrciSrc::State {
    std::array<std::uint32_t, 8> words;
};

struct ErrlEntry::State {
    struct numbers {
        std::uint32_t logId = ++lastLogId;
        std::uint32_t returnCode = 0;
        std::uint16_t count = 0; ///< SRCs in use
        std::array<SrciSrc::State, srcsMax> srcs{};
    } has{};
    // In the entry itself: an SRC stays where it is while others are added.
    SrciSrc handles[srcsMax]{SrciSrc{&has.srcs[0]}, SrciSrc{&has.srcs[1]}, SrciSrc{&has.srcs[2]}, SrciSrc{&has.srcs[3]},
                             SrciSrc{&has.srcs[4]}};
    std::string items; ///< everything as text, one line for each call

    void append(std::string_view text)
    {
        tried([&] { items += text; });
    }
    /// @param numbers  as unsigned as the format wants them
    void add(const char* format, auto... numbers)
    {
        char line[80];
        std::snprintf(line, sizeof line, format, numbers...);
        append(line);
    }
    void addSrc(const SrciSrc::State& src)
    {
        const auto& word = src.words;
        add("SRC %08X %08X %08X %08X %08X %08X %08X %08X\n", word[0], word[1], word[2], word[3], word[4], word[5],
            word[6], word[7]);
        if (has.count < srcsMax) {
            has.srcs[has.count++] = src;
        }
    }
};

ErrlBase::~ErrlBase() = default;
void* ErrlBase::operator new(std::size_t bytes) noexcept { return ::operator new(bytes, std::nothrow); }
void ErrlBase::operator delete(void* object) noexcept { ::operator delete(object); }
SrciSrc::~SrciSrc() = default;

const std::uint32_t* SrciSrc::getHexData(unsigned int& count) const
{
    count = static_cast<unsigned int>(m_state->words.size());
    return m_state->words.data();
}

ErrlEntry::ErrlEntry(unsigned short component, errlSeverity severity, errlEventType, srciType type, unsigned int flags,
                     unsigned char module, serviceCodes service, unsigned short reason, unsigned int word1,
                     unsigned int word2, unsigned int word3, unsigned int word4, epubSubSystem subsystem, srciTermState)
    : m_state(new (m_room) State)
{
    static_assert(sizeof(State) <= roomBytes);
    addSRC(component, type, flags, module, service, reason, word1, word2, word3, word4, subsystem);
    setSev(severity);
}
ErrlEntry::~ErrlEntry() { m_state->~State(); }

ErrlEntry& ErrlEntry::operator=(const ErrlEntry& other)
{
    if (this != &other) {
        m_state->has = other.m_state->has;
        m_state->items.clear();
        m_state->append(other.m_state->items);
    }
    return *this;
}

void ErrlEntry::addSRC(unsigned short component, srciType type, unsigned int, unsigned char module,
                       serviceCodes service, unsigned short reason, unsigned int word1, unsigned int word2,
                       unsigned int word3, unsigned int word4, epubSubSystem subsystem)
{
    m_state->addSrc({{std::uint32_t{type} << 16 | service, std::uint32_t{component} << 16 | module, reason, subsystem,
                      word1, word2, word3, word4}});
}
void ErrlEntry::addSRC(unsigned short, const SrciSrc& src) { m_state->addSrc(*src.state()); }
void ErrlEntry::CollectTrace(const char* name, unsigned int bytes)
{
    tried([&] { m_state->items += minimal::latestTrace(name, bytes); });
}

void ErrlEntry::addUsrDtls(const void* data, unsigned short length, unsigned short, unsigned char, unsigned char kind)
{
    m_state->add("details %u: ", kind);
    for (unsigned short at = 0; at < length; ++at) {
        m_state->add("%02x", static_cast<const unsigned char*>(data)[at]);
    }
    m_state->append("\n");
}

void ErrlEntry::setRC(unsigned int returnCode)
{
    m_state->has.returnCode = returnCode;
    m_state->add("return code 0x%08X\n", returnCode);
}
void ErrlEntry::setSev(errlSeverity severity) { m_state->add("severity 0x%X\n", severity); }
void ErrlEntry::addProcedureCallout(srciPriority, epubProcedureID id) { m_state->add("check: procedure %u\n", id); }
void ErrlEntry::addFruCallout(srciPriority, unsigned short fruId) { m_state->add("check: part 0x%X\n", fruId); }
void ErrlEntry::addSwErr(unsigned short, unsigned int code, unsigned short module, unsigned short site, unsigned int)
{
    m_state->add("call failed with 0x%08X: module %u, site %u\n", code, module, site);
}

void ErrlEntry::commit(unsigned short, unsigned short)
{
    // A board writes the entry to its flash here, and returns when it is there.
    const std::lock_guard hold(logging);
    if (!tried([&] { committed()[commits++ % committed().size()] = {plid(), m_state->items}; })) {
        // never lost silently
        std::fprintf(stderr, "entry 0x%08X, return code 0x%08X: no memory\n", plid(), getRC());
    }
}

const SrciSrc* ErrlEntry::getSRC(unsigned short index) const
{
    return index < m_state->has.count ? &m_state->handles[index] : nullptr;
}
// the component in the first SRC
std::uint16_t ErrlEntry::creator() const { return static_cast<std::uint16_t>(m_state->has.srcs[0].words[1] >> 16); }
std::uint32_t ErrlEntry::plid() const { return m_state->has.logId; }
std::uint32_t ErrlEntry::getRC() const { return m_state->has.returnCode; }

std::string minimal::committedText(std::uint32_t logId)
{
    std::string text;
    const std::lock_guard hold(logging);
    for (const auto& [id, entry] : committed()) {
        text += id == logId ? entry : "";
    }
    return text;
}
