// Apart from the entries' own code: seen together, the compiler takes the class's pair of operators for a mismatched
// one.
#include <array>
#include <atomic>
#include <cstddef>
#include <new>

#include "platform/errl.h"

namespace
{

/// Room for entries that report a lack of memory.
class reserve
{
public:
    /// @return null when `bytes` are more than an entry has, or all room is in use
    void* take(std::size_t bytes) noexcept
    {
        for (slot& each : m_slots) {
            if (bytes <= sizeof each.room && !each.taken.exchange(true, std::memory_order_acquire)) {
                return each.room;
            }
        }
        return nullptr;
    }
    /// @return false when `object` is not from here
    bool giveBack(const void* object) noexcept
    {
        for (slot& each : m_slots) {
            if (object == each.room) {
                each.taken.store(false, std::memory_order_release);
                return true;
            }
        }
        return false;
    }

private:
    struct slot {
        alignas(std::max_align_t) std::byte room[sizeof(ErrlEntry)]{};
        std::atomic<bool> taken{false};
    };
    std::array<slot, 16> m_slots{};
};
constinit reserve keptAside;

} // namespace

ErrlBase::~ErrlBase() = default;

void* ErrlBase::operator new(std::size_t bytes) noexcept
{
    void* const room = ::operator new(bytes, std::nothrow);
    return room != nullptr ? room : keptAside.take(bytes);
}

void ErrlBase::operator delete(void* object) noexcept
{
    if (!keptAside.giveBack(object)) {
        ::operator delete(object);
    }
}
