#include "platform/host/errorlog/entry.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <unistd.h>

#include "platform/host/errorlog/commit.h"
#include "platform/host/errorlog/json.h"
#include "platform/host/trace/collect.h"

namespace
{

using namespace kest::host;

/// What an entry answers whose state could not be had for lack of memory.
constexpr std::uint32_t idWithoutMemory = UINT32_MAX;

std::int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

/// Does `change` to an entry's state. Callers know no exceptions: what there is no memory for is left out, and the entry says so.
template <typename change_t>
void alter(ErrlEntry::State* state, change_t change) noexcept
{
    try {
        if (state != nullptr)
            change(*state);
    } catch (const std::exception&) {
        state->facts.incomplete = true;
    }
}

void appendSrc(ErrlEntry::State& state, const loggedSrc& src)
{
    auto words = std::make_unique<SrciSrc::State>(SrciSrc::State{src});
    state.srcs.emplace_back(words.get());
    [[maybe_unused]] const auto* owned = words.release();
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

SrciSrc::~SrciSrc() { delete m_state; }

ErrlEntry::ErrlEntry(unsigned short component, errlSeverity severity, errlEventType eventType, srciType type,
                     unsigned int srcFlags, unsigned char module, serviceCodes serviceCode, unsigned short reason,
                     unsigned int word1, unsigned int word2, unsigned int word3, unsigned int word4,
                     epubSubSystem subsystem, srciTermState termState)
    : m_state(new (std::nothrow) State)
{
    alter(m_state, [&](State& state) {
        state.facts.plid      = nextEntryId();
        state.facts.createdMs = nowMs();
        state.facts.severity  = severity;
        state.facts.eventType = eventType;
        state.facts.creator   = component;
        state.facts.processId = getpid();
        appendSrc(state, makeSrc(component, type, srcFlags, module, serviceCode, reason, {word1, word2, word3, word4},
                                 subsystem, termState));
        state.facts.process = cleanText(program_invocation_short_name);
    });
}

ErrlEntry& ErrlEntry::operator=(const ErrlEntry& other)
{
    if (this != &other && other.m_state != nullptr) {
        alter(m_state, [&](State& state) {
            State copy;
            for (const SrciSrc& src : other.m_state->srcs)
                appendSrc(copy, src.state()->src);
            copy.facts = other.m_state->facts;
            std::swap(state, copy);
        });
    }
    return *this;
}

ErrlEntry::~ErrlEntry() { delete m_state; }

void ErrlEntry::addSRC(unsigned short component, srciType type, unsigned int srcFlags, unsigned char module,
                       serviceCodes serviceCode, unsigned short reason, unsigned int word1, unsigned int word2,
                       unsigned int word3, unsigned int word4, epubSubSystem subsystem)
{
    alter(m_state, [&](State& state) {
        appendSrc(state, makeSrc(component, type, srcFlags, module, serviceCode, reason, {word1, word2, word3, word4},
                                 subsystem, SRCI_TERM_NONE));
    });
}

void ErrlEntry::addSRC(unsigned short creator, const SrciSrc& src)
{
    alter(m_state, [&](State& state) {
        loggedSrc copy = src.state()->src;
        copy.creator   = creator;
        appendSrc(state, copy);
    });
}

void ErrlEntry::CollectTrace(const char* bufferName, unsigned int bytes)
{
    alter(m_state, [&](State& state) {
        std::string text = bufferName != nullptr ? collectTrace(bufferName, bytes) : std::string();
        if (!text.empty())
            state.facts.traces.push_back({cleanText(bufferName), cleanText(text)});
    });
}

void ErrlEntry::addUsrDtls(const void* data, unsigned short length, unsigned short component, unsigned char version,
                           unsigned char subsection)
{
    alter(m_state, [&](State& state) {
        const auto*   bytes = static_cast<const std::uint8_t*>(data);
        loggedDetails details{component, version, subsection, {}};
        if (bytes != nullptr)
            details.bytes.assign(bytes, bytes + length);
        state.facts.userDetails.push_back(std::move(details));
    });
}

void ErrlEntry::setRC(unsigned int returnCode)
{
    alter(m_state, [&](State& state) { state.facts.returnCode = returnCode; });
}

void ErrlEntry::setSev(errlSeverity severity)
{
    alter(m_state, [&](State& state) { state.facts.severity = severity; });
}

void ErrlEntry::addProcedureCallout(srciPriority priority, epubProcedureID procedure)
{
    alter(m_state, [&](State& state) { state.facts.callouts.push_back({priority, procedure}); });
}

void ErrlEntry::addFruCallout(srciPriority priority, unsigned short fruId)
{
    alter(m_state, [&](State& state) { state.facts.fruCallouts.push_back({priority, fruId}); });
}

void ErrlEntry::addSwErr(unsigned short component, unsigned int returnCode, unsigned short word1, unsigned short word2,
                         unsigned int reserved)
{
    alter(m_state, [&](State& state) {
        state.facts.softwareErrors.push_back({component, returnCode, word1, word2, reserved});
    });
}

void ErrlEntry::commit(unsigned short component, unsigned short action)
{
    bool formed = false;
    alter(m_state, [&](State& state) {
        state.facts.commitComponent = component;
        state.facts.commitAction    = action;
        state.facts.committedMs     = nowMs();
        const loggedEntry whole     = describeEntry(*this);
        formed                      = true;
        storeEntry(whole);
    });
    if (!formed)
        reportLostEntry();
}

const SrciSrc* ErrlEntry::getSRC(unsigned short index) const
{
    return m_state != nullptr && index < m_state->srcs.size() ? &m_state->srcs[index] : nullptr;
}

std::uint16_t ErrlEntry::creator() const { return m_state != nullptr ? m_state->facts.creator : 0; }

std::uint32_t ErrlEntry::plid() const { return m_state != nullptr ? m_state->facts.plid : idWithoutMemory; }

std::uint32_t ErrlEntry::getRC() const { return m_state != nullptr ? m_state->facts.returnCode : 0; }

namespace kest::host
{

loggedEntry describeEntry(const ErrlEntry& entry)
{
    loggedEntry facts;
    if (const ErrlEntry::State* state = entry.state()) {
        facts = state->facts;
        for (const SrciSrc& src : state->srcs)
            facts.srcs.push_back(src.state()->src);
    }
    return facts;
}

ErrlEntry* newHostEntry(std::uint16_t component, std::uint8_t module, std::uint16_t reason,
                        const std::array<std::uint32_t, 4>& words)
{
    auto* entry = new ErrlEntry(component, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0,
                                module, SERVICE_CODE_KEST, reason, words[0], words[1], words[2], words[3],
                                EPUB_SUBSYSTEM_SOFTWARE, SRCI_TERM_NONE);
    if (entry != nullptr) {
        entry->setRC(0x80000000U | reason);
        entry->addProcedureCallout(SRCI_PRIORITY_HIGH, EPUB_PROCEDURE_SOFTWARE);
    }
    return entry;
}

} // namespace kest::host
