/// A platform that serves everything from memory: one device of zeros on each path, a registry that says hardware, no
/// persisted copies. It does what the interface asks of each function and no more, so that a benchmark on it measures
/// the library.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "platform/errl.h"
#include "platform/mern.h"
#include "platform/netc.h"
#include "platform/registry.h"
#include "platform/tavo.h"
#include "platform/trace.h"

// --- error log: entries of one SRC; nothing is stored ---------------------------------------------------------------

struct SrciSrc::State {
    std::array<std::uint32_t, 8> words;
};
struct ErrlEntry::State {
    explicit State(const std::array<std::uint32_t, 8>& words) : srcState{words} {}
    SrciSrc::State srcState;
    SrciSrc src{&srcState};
    std::uint32_t returnCode = 0;
};

ErrlBase::~ErrlBase() = default;
void* ErrlBase::operator new(std::size_t bytes) noexcept { return std::malloc(bytes); }
void ErrlBase::operator delete(void* object) noexcept { std::free(object); }

SrciSrc::~SrciSrc() = default;

const std::uint32_t* SrciSrc::getHexData(unsigned int& count) const
{
    count = static_cast<unsigned int>(m_state->words.size());
    return m_state->words.data();
}

ErrlEntry::ErrlEntry(unsigned short component, errlSeverity, errlEventType, srciType type, unsigned int,
                     unsigned char module, serviceCodes serviceCode, unsigned short reason, unsigned int word1,
                     unsigned int word2, unsigned int word3, unsigned int word4, epubSubSystem subsystem, srciTermState)
    : m_state(new State({(std::uint32_t{type} << 16) | serviceCode, (std::uint32_t{component} << 16) | module, reason,
                         subsystem, word1, word2, word3, word4}))
{
}
ErrlEntry::~ErrlEntry() { delete m_state; }

ErrlEntry& ErrlEntry::operator=(const ErrlEntry& other)
{
    if (this != &other) {
        m_state->srcState = other.m_state->srcState;
        m_state->returnCode = other.m_state->returnCode;
    }
    return *this;
}

void ErrlEntry::addSRC(unsigned short, srciType, unsigned int, unsigned char, serviceCodes, unsigned short,
                       unsigned int, unsigned int, unsigned int, unsigned int, epubSubSystem)
{
}
void ErrlEntry::addSRC(unsigned short, const SrciSrc&) {}
void ErrlEntry::CollectTrace(const char*, unsigned int) {}
void ErrlEntry::addUsrDtls(const void*, unsigned short, unsigned short, unsigned char, unsigned char) {}
void ErrlEntry::setRC(unsigned int returnCode) { m_state->returnCode = returnCode; }
void ErrlEntry::setSev(errlSeverity) {}
void ErrlEntry::addProcedureCallout(srciPriority, epubProcedureID) {}
void ErrlEntry::addFruCallout(srciPriority, unsigned short) {}
void ErrlEntry::addSwErr(unsigned short, unsigned int, unsigned short, unsigned short, unsigned int) {}
void ErrlEntry::commit(unsigned short, unsigned short) {}

const SrciSrc* ErrlEntry::getSRC(unsigned short index) const { return index == 0 ? &m_state->src : nullptr; }
std::uint16_t ErrlEntry::creator() const { return static_cast<std::uint16_t>(m_state->srcState.words[1] >> 16); }
std::uint32_t ErrlEntry::plid() const { return 1; }
std::uint32_t ErrlEntry::getRC() const { return m_state->returnCode; }

// --- trace: a record's fixed part goes into a ring, so that a trace is not free --------------------------------------

struct trace_wobu_buffer {
    struct record {
        std::uint32_t hash;
        int line;
        const char* format;
    };
    std::atomic<unsigned> next;
    std::array<record, 512> records;
};

int trace_wobu_init_buffer(trace_wobu_descriptor* descriptor, const char*, unsigned int)
{
    static trace_wobu_buffer buffer;
    *descriptor = &buffer;
    return 0;
}

void trace_wobu_write_all(trace_wobu_descriptor descriptor, std::uint32_t hash, const char* format, int line, int, ...)
{
    const unsigned at = descriptor->next.fetch_add(1, std::memory_order_relaxed);
    descriptor->records[at % descriptor->records.size()] = {hash, line, format};
}

void trace_wobu_write2(trace_wobu_descriptor, int, unsigned int, const void*, unsigned int, const void*) {}

// --- IIC layer: every device is there and holds zeros ---------------------------------------------------------------

const mern_t MERN_INVALID{{~0U, ~0U, ~0U, ~0U, ~0U, ~0U}};

MernNode::MernNode() = default;
MernNode::MernNode(const MernNode& other) = default;
MernNode::~MernNode() = default;

int MernInitialize(std::uint32_t) { return 0; }
mern_t mern_iic_open(MernNode, const char*, int) { return {{1, 0, 0, 0, 0, 0}}; }

int mern_iic_config(mern_t&, int direction, wobu_iic_cfg_t item, void* value, unsigned int size)
{
    if (direction == 1) {
        const std::uint32_t present = MERN_DETECT_PRESENT;
        std::memset(value, 0, size);
        if (item == WOBU_IIC_DETECT_STATE && size == sizeof present) {
            std::memcpy(value, &present, sizeof present);
        }
    }
    return 0;
}

int mern_iic_seek(mern_t&, long, int) { return 0; }

int mern_iic_read(mern_t&, void* buffer, unsigned int size)
{
    std::memset(buffer, 0, size);
    return static_cast<int>(size);
}

int mern_iic_write(mern_t&, const void*, unsigned int size) { return static_cast<int>(size); }
int mern_iic_reset(mern_t&, int) { return 0; }
int mern_iic_close(mern_t&) { return 0; }
int mern_iic_ffdc_extract(mern_t&, int, void**) { return 0; }
int mern_iic_ffdc_unlock(mern_t&, int) { return 0; }

// --- registry, VPD service, messages --------------------------------------------------------------------------------

ErrlEntry* UtilReg::read(const char*, void* buffer, unsigned int& size, bool, ErrlEntry*)
{
    constexpr char value[] = "HWareMode";
    size = sizeof value - 1;
    std::memcpy(buffer, value, size);
    return nullptr;
}

ErrlEntry* tavo_read_data_persistancy(const char*, unsigned int, const char*, unsigned char**, unsigned int* length,
                                      unsigned int)
{
    *length = 0;
    return nullptr;
}

ErrlEntry* tavo_write_data_persistancy(const char*, unsigned int, const char*, const unsigned char*, unsigned int*,
                                       unsigned int)
{
    return nullptr;
}

ErrlEntry* TAVO_get_dev_addr_string(unsigned int, char** string, zelPosition, bool)
{
    *string = static_cast<char*>(std::calloc(1, 1));
    return nullptr;
}

void* tavo_malloc(unsigned int size) { return std::calloc(1, size == 0 ? 1 : size); }

void tavo_util_free(void** buffer)
{
    if (buffer != nullptr) {
        std::free(*buffer);
        *buffer = nullptr;
    }
}

struct NetcMessage::State {
};
NetcMessage::NetcMessage() : m_state(nullptr) {}
NetcMessage::~NetcMessage() = default;
char* NetcMessage::dataPointer() const { return nullptr; }
unsigned int NetcMessage::dataSize() const { return 0; }
bool NetcMessage::setData(const char*, unsigned int) { return m_state == nullptr; }
