#include "platform/netc.h"

#include <array>
#include <cstring>
#include <memory>
#include <new>

struct NetcMessage::State {
    std::array<char, 512> room; ///< of a small payload
    std::unique_ptr<char[]> large; ///< payload that does not fit there
    unsigned int size = 0;

    void clear()
    {
        large.reset();
        size = 0;
    }
};

NetcMessage::NetcMessage() : m_state(new (std::nothrow) State) {}

NetcMessage::~NetcMessage() { delete m_state; }

char* NetcMessage::dataPointer() const
{
    if (m_state == nullptr || m_state->size == 0) {
        return nullptr;
    }
    return m_state->large != nullptr ? m_state->large.get() : m_state->room.data();
}

unsigned int NetcMessage::dataSize() const { return m_state != nullptr ? m_state->size : 0; }

bool NetcMessage::setData(const char* data, unsigned int size)
{
    if (m_state == nullptr) {
        return false;
    }
    if (size == 0 || data == nullptr) {
        m_state->clear();
        return size == 0;
    }
    // The copy is made before the release: the bytes may be this very payload's.
    if (size <= m_state->room.size()) {
        std::memmove(m_state->room.data(), data, size);
        m_state->large.reset();
        m_state->size = size;
        return true;
    }
    std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
    if (copy == nullptr) {
        m_state->clear();
        return false;
    }
    std::memcpy(copy.get(), data, size);
    m_state->large = std::move(copy);
    m_state->size = size;
    return true;
}
