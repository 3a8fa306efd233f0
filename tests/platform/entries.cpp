/// The error log.
#include <cerrno>
#include <cstdlib>

#include "tests/platform/state.h"

using namespace scripted;

struct SrciSrc::State {
    Src src;
    std::array<std::uint32_t, 8> words;
    unsigned count;
    int entry, index;
};

struct ErrlEntry::State {
    std::shared_ptr<EntryRecord> record;
    mutable std::map<int, std::unique_ptr<SrciSrc>> srcs; ///< those asked for
    std::string name() const { return "entry" + std::to_string(record->number); }
};

namespace
{

/// Logs a call on an entry. It changes `errno`, which no caller may expect to keep across a call of the error log.
void note(const ErrlEntry::State& entry, const std::string& call, unsigned kind = kindEntry)
{
    Platform::Impl& platform = scripted::state();
    if (!platform.quiet) {
        platform.write(kind, entry.name() + call);
    }
    errno = staleErrno;
}

std::string join(std::initializer_list<std::string> arguments)
{
    std::string out = "(";
    for (const std::string& argument : arguments) {
        out += (out.size() > 1 ? ", " : "") + argument;
    }
    return out + ")";
}

} // namespace

ErrlBase::~ErrlBase() = default;

void* ErrlBase::operator new(std::size_t bytes) noexcept
{
    Platform::Impl& platform = scripted::state();
    const std::scoped_lock lock{platform.mutex};
    errno = staleErrno;
    if (platform.entryFault.strikes()) {
        platform.write(kindEntry, "no memory for an entry");
        return nullptr;
    }
    void* const memory = ::operator new(bytes);
    platform.entryMemory[memory] = true;
    return memory;
}

void ErrlBase::operator delete(void* object) noexcept
{
    Platform::Impl& platform = scripted::state();
    const std::scoped_lock lock{platform.mutex};
    const auto found = platform.entryMemory.find(object);
    if (object == nullptr) {
        return;
    }
    if (found == platform.entryMemory.end() || !found->second) {
        ADD_FAILURE() << "an entry was deleted that was never made or was deleted before";
        return;
    }
    found->second = false;
#ifdef KEST_ADDRESS_SANITIZER
    platform.entryMemory.erase(found);
    // without the address sanitizer the block is kept, so that a second deletion is noticed
    ::operator delete(object);
#endif
}

SrciSrc::~SrciSrc() { delete m_state; }

const std::uint32_t* SrciSrc::getHexData(unsigned int& count) const
{
    count = m_state->count;
    return m_state->words.data();
}

ErrlEntry::ErrlEntry(unsigned short component, errlSeverity severity, errlEventType eventType, srciType type,
                     unsigned int srcFlags, unsigned char module, serviceCodes serviceCode, unsigned short reason,
                     unsigned int word1, unsigned int word2, unsigned int word3, unsigned int word4,
                     epubSubSystem subsystem, srciTermState termState)
    : m_state(new State)
{
    Platform::Impl& platform = scripted::state();
    const std::scoped_lock lock{platform.mutex};
    m_state->record = std::make_shared<EntryRecord>();
    EntryRecord& record = *m_state->record;
    platform.entries.push_back(m_state->record);
    record.number = static_cast<int>(platform.entries.size());
    record.byPlatform = platform.quiet;
    record.creator = component;
    record.plid = 0x50000000U + static_cast<std::uint32_t>(record.number);
    record.severity = severity;
    record.eventType = eventType;
    record.termState = termState;
    record.srcs.push_back(
        {module, reason, word1, word2, word3, word4, subsystem, component, type, srcFlags, serviceCode});
    note(*m_state,
         " = ErrlEntry" + join({hexText(component), hexText(severity), std::to_string(eventType), hexText(type),
                                std::to_string(srcFlags), std::to_string(module), hexText(serviceCode), hexText(reason),
                                hexText(word1), hexText(word2), hexText(word3), hexText(word4), hexText(subsystem),
                                std::to_string(termState)}));
}

ErrlEntry::~ErrlEntry()
{
    Platform::Impl& platform = scripted::state();
    const std::scoped_lock lock{platform.mutex};
    platform.write(kindEntry, "delete " + m_state->name());
    m_state->record->deleted = true;
    delete m_state;
    errno = staleErrno;
}

ErrlEntry& ErrlEntry::operator=(const ErrlEntry& other)
{
    if (this != &other) {
        EntryRecord& record = *m_state->record;
        const int number = record.number;
        const bool byPlatform = record.byPlatform;
        record = *other.m_state->record;
        record.number = number;
        record.byPlatform = byPlatform;
        m_state->srcs.clear();
    }
    note(*m_state, " = copy of " + other.m_state->name());
    return *this;
}

void ErrlEntry::addSRC(unsigned short component, srciType type, unsigned int srcFlags, unsigned char module,
                       serviceCodes serviceCode, unsigned short reason, unsigned int word1, unsigned int word2,
                       unsigned int word3, unsigned int word4, epubSubSystem subsystem)
{
    m_state->record->srcs.push_back(
        {module, reason, word1, word2, word3, word4, subsystem, component, type, srcFlags, serviceCode});
    note(*m_state, ".addSRC" + join({hexText(component), hexText(type), std::to_string(srcFlags),
                                     std::to_string(module), hexText(serviceCode), hexText(reason), hexText(word1),
                                     hexText(word2), hexText(word3), hexText(word4), hexText(subsystem)}));
}

void ErrlEntry::addSRC(unsigned short creator, const SrciSrc& src)
{
    Src added = src.m_state->src;
    added.component = creator;
    m_state->record->srcs.push_back(added);
    note(*m_state, ".addSRC" + join({hexText(creator), "SRC " + std::to_string(src.m_state->index) + " of entry" +
                                                           std::to_string(src.m_state->entry)}));
}

void ErrlEntry::CollectTrace(const char* bufferName, unsigned int bytes)
{
    m_state->record->traces.push_back({bufferName, bytes});
    note(*m_state, ".CollectTrace" + join({quoted(bufferName), std::to_string(bytes)}));
}

void ErrlEntry::addUsrDtls(const void* data, unsigned short length, unsigned short component, unsigned char version,
                           unsigned char subsection)
{
    const auto* const bytes = static_cast<const std::uint8_t*>(data);
    Bytes copy(bytes, bytes + length);
    note(*m_state, ".addUsrDtls" + join({detailsText(copy, subsection), hexText(component), std::to_string(version),
                                         std::to_string(subsection)}));
    m_state->record->userDetails.push_back({component, version, subsection, std::move(copy)});
}

void ErrlEntry::setRC(unsigned int returnCode)
{
    m_state->record->returnCode = returnCode;
    note(*m_state, ".setRC" + join({hexText(returnCode)}));
}

void ErrlEntry::setSev(errlSeverity severity)
{
    m_state->record->severity = severity;
    note(*m_state, ".setSev" + join({hexText(severity)}));
}

void ErrlEntry::addProcedureCallout(srciPriority priority, epubProcedureID procedure)
{
    m_state->record->callouts.push_back({priority, procedure});
    note(*m_state, ".addProcedureCallout" + join({std::to_string(priority), std::to_string(procedure)}));
}

void ErrlEntry::addFruCallout(srciPriority priority, unsigned short fruId)
{
    m_state->record->fruCallouts.push_back({priority, fruId});
    note(*m_state, ".addFruCallout" + join({std::to_string(priority), hexText(fruId)}));
}

void ErrlEntry::addSwErr(unsigned short component, unsigned int returnCode, unsigned short word1, unsigned short word2,
                         unsigned int reserved)
{
    m_state->record->softwareErrors.push_back({component, returnCode, word1, word2, reserved});
    note(*m_state, ".addSwErr" + join({hexText(component), hexText(returnCode), std::to_string(word1),
                                       std::to_string(word2), std::to_string(reserved)}));
}

void ErrlEntry::commit(unsigned short component, unsigned short action)
{
    m_state->record->commits.push_back({component, action});
    note(*m_state, ".commit" + join({hexText(component), hexText(action)}));
}

const SrciSrc* ErrlEntry::getSRC(unsigned short index) const
{
    note(*m_state, ".getSRC" + join({std::to_string(index)}), kindQuery);
    const EntryRecord& record = *m_state->record;
    if (index >= record.srcs.size()) {
        return nullptr;
    }
    std::unique_ptr<SrciSrc>& made = m_state->srcs[index];
    if (!made) {
        const Src& src = record.srcs[index];
        made = std::make_unique<SrciSrc>(
            new SrciSrc::State{src,
                               {(src.type << 16) | src.serviceCode, (std::uint32_t{src.component} << 16) | src.module,
                                src.reason, src.subsystem, src.word1, src.word2, src.word3, src.word4},
                               record.wordCount,
                               record.number,
                               index});
    }
    return made.get();
}

std::uint16_t ErrlEntry::creator() const
{
    note(*m_state, ".creator()", kindQuery);
    return m_state->record->creator;
}

std::uint32_t ErrlEntry::plid() const
{
    note(*m_state, ".plid()", kindQuery);
    return m_state->record->plid;
}

std::uint32_t ErrlEntry::getRC() const
{
    note(*m_state, ".getRC()", kindQuery);
    return m_state->record->returnCode.value_or(0);
}

namespace scripted
{

ErrlEntry* Platform::Impl::entryOf(const EntryShape& wanted)
{
    const std::scoped_lock lock{mutex};
    quiet = true;
    const Src first = wanted.srcs.empty() ? Src{} : wanted.srcs.front();
    auto* entry = new ErrlEntry(wanted.creator, ERRL_SEV_UNRECOVERED, ERRL_EVENT_NONE, SRCI_TYPE_SERVICE_PROCESSOR, 0,
                                first.module, SERVICE_CODE_KEST, first.reason, first.word1, first.word2, first.word3,
                                first.word4, EPUB_SUBSYSTEM_SOFTWARE, SRCI_TERM_NONE);
    quiet = false;
    EntryRecord& record = *entries.back();
    record.srcs = wanted.srcs;
    record.returnCode = wanted.returnCode;
    record.wordCount = wanted.wordCount;
    return entry;
}

ErrlEntry* Platform::makeEntry(const EntryShape& entry) { return m_impl->entryOf(entry); }

const EntryRecord& Platform::entry(const ErrlEntry* entry) const
{
    static const EntryRecord none;
    if (entry == nullptr) {
        ADD_FAILURE() << "no entry";
        return none;
    }
    return *entry->state()->record;
}

const EntryRecord& Platform::entry(int number) const
{
    static const EntryRecord none;
    if (number < 1 || number > entryCount()) {
        ADD_FAILURE() << "no entry" << number << ": " << entryCount() << " were made";
        return none;
    }
    return *m_impl->entries[static_cast<std::size_t>(number - 1)];
}

int Platform::entryCount() const { return static_cast<int>(m_impl->entries.size()); }

int Platform::commits() const
{
    std::size_t count = 0;
    for (const auto& entry : m_impl->entries) {
        count += entry->commits.size();
    }
    return static_cast<int>(count);
}

int Platform::liveEntries() const
{
    int live = 0;
    for (const auto& entry : m_impl->entries) {
        live += entry->deleted ? 0 : 1;
    }
    return live;
}

} // namespace scripted
