/// Script, log and verification.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tests/platform/state.h"

namespace scripted
{
namespace
{

constexpr std::array<const char*, opCount> operationNames{"mern_iic_open",
                                                          "mern_iic_config",
                                                          "mern_iic_seek",
                                                          "mern_iic_read",
                                                          "mern_iic_write",
                                                          "mern_iic_reset",
                                                          "mern_iic_close",
                                                          "mern_iic_ffdc_extract",
                                                          "mern_iic_ffdc_unlock",
                                                          "UtilReg::read",
                                                          "tavo_read_data_persistancy",
                                                          "tavo_write_data_persistancy",
                                                          "TAVO_get_dev_addr_string"};

} // namespace

void Platform::Impl::write(unsigned kind, const std::string& text, int sourceLine)
{
    const std::scoped_lock lock{mutex};
    lines.push_back({kind, text, sourceLine});
}

std::optional<Answer> Platform::Impl::next(Operation operation, const std::string& call)
{
    std::deque<Answer>& queue = script[operation];
    std::optional<Answer> answer;
    if (!queue.empty()) {
        answer = std::move(queue.front());
        queue.pop_front();
    } else if (healthy) {
        answer = Answer{};
    } else {
        ADD_FAILURE() << "the script does not expect " << call;
    }
    return answer;
}

std::optional<int> Platform::Impl::struck(unsigned kind, const std::string& call)
{
    if ((faultKinds & kind) == 0) {
        return std::nullopt;
    }
    const bool now = fault.strikes();
    if (now) {
        faultMet = true;
        failedCall = call;
    }
    return now || (faultMet && faultPersistent) ? std::optional{faultError} : std::nullopt;
}

Buffer& Platform::Impl::newBuffer(const std::string& family, std::size_t size, const std::uint8_t* data)
{
    auto buffer = std::make_unique<Buffer>();
    buffer->name = family + std::to_string(++bufferNumbers[family]);
    buffer->bytes = std::make_unique<std::uint8_t[]>(size);
    buffer->size = size;
    if (data != nullptr) {
        std::copy_n(data, size, buffer->bytes.get());
    }
    buffers.push_back(std::move(buffer));
    return *buffers.back();
}

Platform& Platform::instance()
{
    // never destroyed: exit handlers may trace later
    static Platform* const platform = new Platform;
    return *platform;
}

Platform::Platform() : m_impl(new Impl) {}

// --- script ---

namespace
{

Platform& queue(Operation operation, Answer answer, int times = 1)
{
    for (int i = 0; i < times; ++i) {
        state().script[operation].push_back(answer);
    }
    return Platform::instance();
}

Answer done() { return {.result = 0, .error = {}, .data = {}, .length = {}, .entry = {}}; }
Answer fails(int error, int result = -1)
{
    return {.result = result, .error = error, .data = {}, .length = {}, .entry = {}};
}
Answer gives(const Bytes& data, std::optional<int> error = {})
{
    return {.result = 0, .error = error, .data = data, .length = {}, .entry = {}};
}
Answer answersEntry(const EntryShape& entry, std::optional<unsigned> length = {})
{
    return {.result = 0, .error = {}, .data = {}, .length = length, .entry = entry};
}

} // namespace

Platform& Platform::opens() { return queue(opOpen, done()); }
Platform& Platform::failsOpen(int error) { return queue(opOpen, fails(error)); }
Platform& Platform::configures(int times) { return queue(opConfig, done(), times); }
Platform& Platform::configuresReading(const Bytes& value) { return queue(opConfig, gives(value)); }
Platform& Platform::failsConfig(int error, int result) { return queue(opConfig, fails(error, result)); }
Platform& Platform::seeks(int times) { return queue(opSeek, done(), times); }
Platform& Platform::failsSeek(int error, int result) { return queue(opSeek, fails(error, result)); }
Platform& Platform::reads(const Bytes& data) { return queue(opRead, gives(data)); }
Platform& Platform::readsShort(const Bytes& data, int error) { return queue(opRead, gives(data, error)); }
Platform& Platform::writes(int times)
{
    return queue(opWrite, {.result = {}, .error = {}, .data = {}, .length = {}, .entry = {}}, times);
}
Platform& Platform::writesShort(int count, int error) { return queue(opWrite, fails(error, count)); }
Platform& Platform::resets() { return queue(opReset, done()); }
Platform& Platform::failsReset(int error, int result) { return queue(opReset, fails(error, result)); }
Platform& Platform::closes() { return queue(opClose, done()); }
Platform& Platform::failsClose(int error, int result) { return queue(opClose, fails(error, result)); }
Platform& Platform::extractsFfdc(const Bytes& data) { return queue(opExtract, gives(data)); }
Platform& Platform::failsFfdcExtract(int error) { return queue(opExtract, fails(error)); }
Platform& Platform::unlocksFfdc() { return queue(opUnlock, done()); }
Platform& Platform::failsFfdcUnlock(int error, int result) { return queue(opUnlock, fails(error, result)); }
Platform& Platform::registryAnswers(const Bytes& value) { return queue(opRegistry, gives(value)); }
Platform& Platform::failsRegistry(const EntryShape& entry) { return queue(opRegistry, answersEntry(entry)); }
Platform& Platform::readsCopy(const Bytes& data) { return queue(opCopyRead, gives(data)); }
Platform& Platform::readsEmptyCopy()
{
    Answer answer = gives({0});
    answer.length = 0;
    return queue(opCopyRead, std::move(answer));
}
Platform& Platform::failsCopyRead(const EntryShape& entry, std::optional<unsigned> length)
{
    return queue(opCopyRead, answersEntry(entry, length));
}
Platform& Platform::writesCopy() { return queue(opCopyWrite, done()); }
Platform& Platform::failsCopyWrite(const EntryShape& entry, std::optional<unsigned> length)
{
    return queue(opCopyWrite, answersEntry(entry, length));
}
Platform& Platform::answersLocation(const std::string& location) { return queue(opLocation, gives(text(location))); }
Platform& Platform::failsLocation(const EntryShape& entry) { return queue(opLocation, answersEntry(entry)); }

Platform& Platform::healthy()
{
    m_impl->healthy = true;
    return *this;
}

Platform& Platform::failCall(int n, int error, bool persistent, unsigned kinds)
{
    m_impl->fault.left = n;
    m_impl->faultError = error;
    m_impl->faultPersistent = persistent;
    m_impl->faultKinds = kinds;
    m_impl->faultMet = false;
    return *this;
}

bool Platform::faultWasMet() const { return m_impl->faultMet; }
const std::string& Platform::failedCall() const { return m_impl->failedCall; }

Platform& Platform::failMalloc(int n)
{
    m_impl->mallocFault.left = n;
    return *this;
}

Platform& Platform::failEntryAllocation(int n)
{
    m_impl->entryFault.left = n;
    return *this;
}

Platform& Platform::failAllocation(int n)
{
    scripted::failAllocation(n);
    return *this;
}

void* Platform::makeBuffer(const Bytes& data)
{
    return m_impl->newBuffer("buffer", data.size(), data.data()).bytes.get();
}

Platform& Platform::expectUnreleasedFfdc(int count)
{
    m_impl->expectedFfdc += count;
    return *this;
}

// --- log ---

std::vector<std::string> Platform::lines(unsigned kinds) const
{
    const std::scoped_lock lock{m_impl->mutex};
    std::vector<std::string> out;
    for (const Impl::Line& line : m_impl->lines) {
        if ((line.kind & kinds) != 0) {
            out.push_back(line.text);
        }
    }
    return out;
}

std::string Platform::log(unsigned kinds) const
{
    std::string out = "\n";
    for (const std::string& line : lines(kinds)) {
        out += line + "\n";
    }
    return out;
}

std::string Platform::tracesWithLines() const
{
    const std::scoped_lock lock{m_impl->mutex};
    std::string out = "\n";
    for (const Impl::Line& line : m_impl->lines) {
        if ((line.kind & kindTrace) != 0) {
            out += std::to_string(line.sourceLine) + " " + line.text + "\n";
        }
    }
    return out;
}

void Platform::clearLog()
{
    const std::scoped_lock lock{m_impl->mutex};
    m_impl->lines.clear();
    m_impl->traceRecords.clear();
    m_impl->configs.clear();
    m_impl->written.clear();
    m_impl->sleeps.clear();
}

std::string Platform::loadLog() const { return m_impl->loadLog; }
void (*Platform::exitHandler() const)(void*) { return m_impl->exitHandler; }
const std::vector<TraceRecord>& Platform::traceRecords() const { return m_impl->traceRecords; }
const std::vector<ConfigCall>& Platform::configs() const { return m_impl->configs; }
const std::vector<Bytes>& Platform::written() const { return m_impl->written; }
const std::vector<unsigned>& Platform::sleeps() const { return m_impl->sleeps; }

// --- what was not released ---

int Platform::openHandles() const
{
    return static_cast<int>(std::ranges::count_if(m_impl->handles, [](const auto& one) {
        return one.first != 0 && !one.second.byTest && !one.second.closeAsked;
    }));
}

int Platform::heldLocks() const
{
    std::size_t held = 0;
    for (const auto& [number, handle] : m_impl->handles) {
        held += number == 0 || handle.byTest ? 0 : handle.locks.size();
    }
    return static_cast<int>(held);
}

int Platform::liveBuffers() const
{
    return static_cast<int>(std::ranges::count_if(m_impl->buffers, [](const auto& one) { return one->live; }));
}

int Platform::liveFfdc() const
{
    return static_cast<int>(
        std::ranges::count_if(m_impl->buffers, [](const auto& one) { return one->live && one->ffdc; }));
}

int Platform::liveAllocations() const { return trackedAllocations(); }

// --- before and after ---

void Platform::verify()
{
    const std::scoped_lock lock{m_impl->mutex};
    for (std::size_t operation = 0; operation < opCount; ++operation) {
        if (const std::size_t left = m_impl->script[operation].size(); left != 0) {
            ADD_FAILURE() << left << " scripted answer(s) of " << operationNames[operation] << " were not asked for";
        }
    }
    for (const auto& [number, handle] : m_impl->handles) {
        if (number != 0 && !handle.byTest && (!handle.closeAsked || !handle.locks.empty())) {
            ADD_FAILURE() << "h" << number << (handle.closeAsked ? " still holds a lock" : " was not closed");
        }
    }
    for (const auto& buffer : m_impl->buffers) {
        if (buffer->live && !buffer->ffdc) {
            ADD_FAILURE() << buffer->name << " (" << buffer->size << " bytes) was not released with tavo_util_free()";
        }
    }
    EXPECT_EQ(m_impl->expectedFfdc, liveFfdc()) << "buffers of first-failure data that stay unreleased";
    for (const auto& entry : m_impl->entries) {
        EXPECT_TRUE(entry->deleted) << "entry" << entry->number << " was not deleted:" << entry->text();
    }
    for (const std::string& error : allocationErrors()) {
        ADD_FAILURE() << error;
    }
    EXPECT_EQ(0, trackedAllocations()) << "blocks that the library allocated are not deleted";
}

void Platform::reset()
{
    {
        SCOPED_TRACE("left by what came before this reset");
        verify();
    }
    forget();
}

void Platform::forget()
{
    const std::scoped_lock lock{m_impl->mutex};
    if (!m_impl->loaded) {
        m_impl->loadLog = log();
        m_impl->loaded = true;
    }
    clearLog();
    for (std::deque<Answer>& answers : m_impl->script) {
        answers.clear();
    }
    m_impl->healthy = false;
    readHandler = nullptr;
    writeHandler = nullptr;
    healthyFfdc.clear();
    m_impl->fault = {};
    m_impl->faultMet = false;
    m_impl->failedCall.clear();
    m_impl->mallocFault = {};
    m_impl->entryFault = {};
    m_impl->handles.clear();
    m_impl->lastHandle = 0;
    m_impl->buffers.clear();
    m_impl->bufferNumbers.clear();
    m_impl->entries.clear();
    for (auto block = m_impl->entryMemory.begin(); block != m_impl->entryMemory.end();) {
        // still in use: its holder may delete it later
        if (block->second) {
            ++block;
        } else {
            ::operator delete(block->first);
            block = m_impl->entryMemory.erase(block);
        }
    }
    m_impl->expectedFfdc = 0;
    forgetAllocations();
}

} // namespace scripted
