#include "platform/host/errorlog/entry.h"

#include <cerrno>
#include <chrono>
#include <exception>
#include <iterator>
#include <memory>
#include <new>
#include <unistd.h>

#include "platform/host/errorlog/commit.h"
#include "platform/host/errorlog/identifiers.h"
#include "platform/host/errorlog/text.h"
#include "platform/host/trace/collect.h"

namespace
{

using namespace kest::host;

std::int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

/// Does `change` to an entry's state. Callers know no exceptions: what there is no memory for is left out, and the
/// entry says so.
template <typename Change>
void alter(ErrlEntry::State& state, Change change) noexcept
{
    try {
        change(state);
    } catch (const std::exception&) {
        state.facts.incomplete = true;
    }
}

/// Copies what needs no memory.
loggedEntry numbersOf(const loggedEntry& entry) noexcept
{
    loggedEntry numbers;
    numbers.plid = entry.plid;
    numbers.createdMs = entry.createdMs;
    numbers.committedMs = entry.committedMs;
    numbers.severity = entry.severity;
    numbers.eventType = entry.eventType;
    numbers.creator = entry.creator;
    numbers.returnCode = entry.returnCode;
    numbers.commitComponent = entry.commitComponent;
    numbers.commitAction = entry.commitAction;
    numbers.processId = entry.processId;
    numbers.incomplete = true;
    return numbers;
}

loggedSrc makeSrc(unsigned short component, srciType type, unsigned int flags, unsigned char module,
                  serviceCodes serviceCode, unsigned short reason, const std::array<std::uint32_t, 4>& words,
                  epubSubSystem subsystem, srciTermState termState)
{
    return {component,
            {static_cast<std::uint32_t>(type) << 16 | static_cast<std::uint32_t>(serviceCode),
             static_cast<std::uint32_t>(component) << 16 | module, reason, subsystem, words[0], words[1], words[2],
             words[3]},
            flags,
            termState};
}

} // namespace

const std::uint32_t* SrciSrc::getHexData(unsigned int& count) const
{
    count = static_cast<unsigned int>(m_state->src.words.size());
    return m_state->src.words.data();
}

// its words lie beside it
SrciSrc::~SrciSrc() = default;

ErrlEntry::ErrlEntry(unsigned short component, errlSeverity severity, errlEventType eventType, srciType type,
                     unsigned int srcFlags, unsigned char module, serviceCodes serviceCode, unsigned short reason,
                     unsigned int word1, unsigned int word2, unsigned int word3, unsigned int word4,
                     epubSubSystem subsystem, srciTermState termState)
    : m_state(new (m_room) State(makeSrc(component, type, srcFlags, module, serviceCode, reason,
                                         {word1, word2, word3, word4}, subsystem, termState)))
{
    static_assert(sizeof(State) <= roomBytes && alignof(State) <= alignof(std::uint64_t));
    loggedEntry& facts = m_state->facts;
    facts.plid = nextEntryId();
    facts.createdMs = nowMs();
    facts.severity = severity;
    facts.eventType = eventType;
    facts.creator = component;
    facts.processId = getpid();
    alter(*m_state, [](State& state) { state.facts.process = cleanText(program_invocation_short_name); });
}

ErrlEntry& ErrlEntry::operator=(const ErrlEntry& other)
{
    if (this != &other) {
        loggedEntry facts;
        std::list<State::heldSrc> further;
        try {
            for (const State::heldSrc& held : other.m_state->further) {
                further.emplace_back(held.words.src);
            }
            facts = other.m_state->facts;
        } catch (const std::exception&) {
            further.clear();
            facts = numbersOf(other.m_state->facts);
        }
        m_state->first.words = other.m_state->first.words;
        m_state->facts = std::move(facts);
        m_state->further.swap(further);
    }
    return *this;
}

ErrlEntry::~ErrlEntry() { std::destroy_at(m_state); }

void ErrlEntry::addSRC(unsigned short component, srciType type, unsigned int srcFlags, unsigned char module,
                       serviceCodes serviceCode, unsigned short reason, unsigned int word1, unsigned int word2,
                       unsigned int word3, unsigned int word4, epubSubSystem subsystem)
{
    alter(*m_state, [&](State& state) {
        state.further.emplace_back(makeSrc(component, type, srcFlags, module, serviceCode, reason,
                                           {word1, word2, word3, word4}, subsystem, SRCI_TERM_NONE));
    });
}

void ErrlEntry::addSRC(unsigned short creator, const SrciSrc& src)
{
    alter(*m_state, [&](State& state) {
        loggedSrc copy = src.state()->src;
        copy.creator = creator;
        state.further.emplace_back(copy);
    });
}

void ErrlEntry::CollectTrace(const char* bufferName, unsigned int bytes)
{
    alter(*m_state, [&](State& state) {
        std::string text = bufferName != nullptr ? collectTrace(bufferName, bytes) : std::string();
        if (!text.empty()) {
            state.facts.traces.push_back({cleanText(bufferName), cleanText(text)});
        }
    });
}

void ErrlEntry::addUsrDtls(const void* data, unsigned short length, unsigned short component, unsigned char version,
                           unsigned char subsection)
{
    alter(*m_state, [&](State& state) {
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        loggedDetails details{component, version, subsection, {}};
        if (bytes != nullptr) {
            details.bytes.assign(bytes, bytes + length);
        }
        state.facts.userDetails.push_back(std::move(details));
    });
}

void ErrlEntry::setRC(unsigned int returnCode)
{
    alter(*m_state, [&](State& state) { state.facts.returnCode = returnCode; });
}

void ErrlEntry::setSev(errlSeverity severity)
{
    alter(*m_state, [&](State& state) { state.facts.severity = severity; });
}

void ErrlEntry::addProcedureCallout(srciPriority priority, epubProcedureID procedure)
{
    alter(*m_state, [&](State& state) { state.facts.callouts.push_back({priority, procedure}); });
}

void ErrlEntry::addFruCallout(srciPriority priority, unsigned short fruId)
{
    alter(*m_state, [&](State& state) { state.facts.fruCallouts.push_back({priority, fruId}); });
}

void ErrlEntry::addSwErr(unsigned short component, unsigned int returnCode, unsigned short word1, unsigned short word2,
                         unsigned int reserved)
{
    alter(*m_state, [&](State& state) {
        state.facts.softwareErrors.push_back({component, returnCode, word1, word2, reserved});
    });
}

void ErrlEntry::commit(unsigned short component, unsigned short action)
{
    m_state->facts.commitComponent = component;
    m_state->facts.commitAction = action;
    m_state->facts.committedMs = nowMs();
    const loggedSrc& first = m_state->first.words.src;
    std::vector<const loggedSrc*> srcs;
    try {
        srcs.push_back(&first);
        for (const State::heldSrc& held : m_state->further) {
            srcs.push_back(&held.words.src);
        }
    } catch (const std::exception&) {
        storeReducedEntry(m_state->facts, first);
        return;
    }
    storeEntry(m_state->facts, srcs);
}

const SrciSrc* ErrlEntry::getSRC(unsigned short index) const
{
    if (index == 0) {
        return &m_state->first.handle;
    }
    return index <= m_state->further.size() ? &std::next(m_state->further.begin(), index - 1)->handle : nullptr;
}

std::uint16_t ErrlEntry::creator() const { return m_state->facts.creator; }

std::uint32_t ErrlEntry::plid() const { return m_state->facts.plid; }

std::uint32_t ErrlEntry::getRC() const { return m_state->facts.returnCode; }

namespace kest::host
{

loggedEntry describeEntry(const ErrlEntry& entry)
{
    const ErrlEntry::State& state = *entry.state();
    loggedEntry facts = state.facts;
    facts.srcs.push_back(state.first.words.src);
    for (const ErrlEntry::State::heldSrc& held : state.further) {
        facts.srcs.push_back(held.words.src);
    }
    return facts;
}

ErrlEntry* newHostEntry(std::uint16_t component, std::uint8_t module, std::uint16_t reason,
                        const std::array<std::uint32_t, 4>& words)
{
    auto* entry = new ErrlEntry(component, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0,
                                module, SERVICE_CODE_KEST, reason, words[0], words[1], words[2], words[3],
                                EPUB_SUBSYSTEM_SOFTWARE, SRCI_TERM_NONE);
    if (entry == nullptr) {
        return nullptr;
    }
    constexpr std::uint32_t softwareClass = 0x80000000;
    entry->setRC(softwareClass | reason);
    entry->addProcedureCallout(SRCI_PRIORITY_HIGH, EPUB_PROCEDURE_SOFTWARE);
    return entry;
}

} // namespace kest::host
