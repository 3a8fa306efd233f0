#include "platform/netc.h"

#include <cstring>
#include <memory>
#include <new>

struct NetcMessage::State {
    std::unique_ptr<char[]> data;
    unsigned int size = 0;
};

NetcMessage::NetcMessage() : m_state(new (std::nothrow) State) {}

NetcMessage::~NetcMessage() { delete m_state; }

char* NetcMessage::dataPointer() const { return m_state != nullptr ? m_state->data.get() : nullptr; }

unsigned int NetcMessage::dataSize() const { return m_state != nullptr ? m_state->size : 0; }

bool NetcMessage::setData(const char* data, unsigned int size)
{
    // The copy is made before the release: the bytes may be this very payload's.
    std::unique_ptr<char[]> copy;
    if (m_state != nullptr && data != nullptr && size > 0) {
        copy.reset(new (std::nothrow) char[size]);
    }
    const bool done = copy != nullptr || (size == 0 && m_state != nullptr);
    if (copy != nullptr) {
        std::memcpy(copy.get(), data, size);
    }
    if (m_state != nullptr) {
        m_state->size = copy != nullptr ? size : 0;
        m_state->data = std::move(copy);
    }
    return done;
}
