/// File descriptors: their numbers, their owners, and all of a text written to one.
#pragma once

#include <cerrno>
#include <cstdint>
#include <span>
#include <string_view>
#include <sys/types.h>
#include <utility>

namespace kest
{

/// In a process that was started without standard input, output or error, the next file that is opened gets that
/// number, and whatever is printed goes into it: a message onto a bus. So everything that kest opens passes through this
/// function. A signal handler may call it.
/// @param opened  what open() or its like has just returned; the function owns it
/// @return a descriptor of the same open file, 3 or above and close-on-exec. -1 with `errno`: the opener's when
/// `opened` is -1, EMFILE when there is no further descriptor.
int ownDescriptor(int opened);

/// An open file. It is closed with its owner.
class fileDescriptor
{
public:
    fileDescriptor() = default;
    explicit fileDescriptor(int number) : m_number(number) {}
    fileDescriptor(fileDescriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    fileDescriptor& operator=(fileDescriptor&& other) noexcept
    {
        std::swap(m_number, other.m_number);
        return *this;
    }
    ~fileDescriptor();

    [[nodiscard]] bool valid() const { return m_number >= 0; }
    [[nodiscard]] int number() const { return m_number; }
    /// @return the number, which is the caller's to close from now on
    int release() { return std::exchange(m_number, -1); }

private:
    int m_number = -1;
};

/// @return what `call` returns once no signal interrupts it
template <typename Call>
auto uninterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    return result;
}

/// Write all bytes, quietly, at the descriptor's position or at `offset`. Signals do not interrupt them.
/// @return 0 or an `errno` value, which is in `errno`, too; some bytes may have been written then
int writeAll(int descriptor, std::span<const std::uint8_t> bytes);
int writeAll(int descriptor, std::string_view text);
int writeAllAt(int descriptor, std::span<const std::uint8_t> bytes, off_t offset);

} // namespace kest
