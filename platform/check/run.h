/// What the checks of the platform interface share: how a check reports, and what it asks of the port.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/check.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest::check
{

using bytes = std::vector<std::uint8_t>;
using ownedEntry = std::unique_ptr<ErrlEntry>;

/// One run of one check. The first finding is what the check reports; a check may go on after it.
class run
{
public:
    explicit run(const kest_checkedPort& checkedPort) : port(checkedPort) {}

    /// @return whether they are the same
    bool same(const char* what, long long expected, long long found);
    bool same(const char* what, std::span<const std::uint8_t> expected, std::span<const std::uint8_t> found);
    bool same(const char* what, const std::string& expected, const std::string& found);
    /// @return `holds`
    bool holds(const char* what, bool holds);
    /// A call that has to fail: compares its result and `errno`.
    bool fails(const char* call, int expectedErrno, int result, int expectedResult = -1);
    /// Ends what a check can do. @return `there`
    bool has(const char* what, bool there);

    const kest_checkedPort& port;
    std::string finding; ///< empty: none
    std::string lacks; ///< what the port does not name; empty: nothing
};

struct check {
    const char* name; ///< group and what must be so
    void (*make)(run& run);
};

// The checks of each group, in the order in which they run.
std::span<const check> entryChecks();
std::span<const check> traceChecks();
std::span<const check> serviceChecks();
std::span<const check> messageChecks();
std::span<const check> deviceChecks();
std::span<const check> transferChecks();
std::span<const check> lockChecks();
std::span<const check> libraryChecks();

/// @return an entry as the library makes them, with `word1` in user data 1; null without memory
ErrlEntry* makeEntry(std::uint16_t reason, std::uint32_t word1 = 0);
/// @return the eight words of an SRC; empty for null
std::vector<std::uint32_t> wordsOf(const SrciSrc* src);

/// An open device, closed at the end.
class openDevice
{
public:
    explicit openDevice(const char* path);
    openDevice(const openDevice&) = delete;
    openDevice& operator=(const openDevice&) = delete;
    ~openDevice();
    bool valid() const { return m_valid; }
    /// @return whether the words say so: the first five are those of MERN_INVALID, which the library compares
    static bool isInvalid(const mern_t& handle);
    int close();

    int target(std::uint32_t address);
    int seek(std::uint32_t position) { return mern_iic_seek(handle, static_cast<long>(position), 0); }
    /// @return what came, as many bytes as were moved
    bytes read(unsigned int size);
    int write(std::span<const std::uint8_t> data);

    mern_t handle;

private:
    bool m_valid;
};

/// Opens the port's memory and sets its block. @param address  false: the block has none, and the target is set by its
/// own item
bool prepareMemory(run& run, openDevice& device, bool address = true);
/// @return `count` bytes that differ from one another, made from `seed`
bytes pattern(std::size_t count, std::uint8_t seed);

/// The port's memory, open and ready for transfers; what was in it is put back at the end.
struct memoryUse {
    /// @param address  as for prepareMemory()
    explicit memoryUse(run& run, bool address = true);
    memoryUse(const memoryUse&) = delete;
    memoryUse& operator=(const memoryUse&) = delete;
    ~memoryUse();
    /// Writes the first four pages, so that bytes at different positions differ. @return whether that worked
    bool fill();
    bytes readAt(std::uint32_t position, unsigned int size);

    run& made;
    const kest_checkedMemory& memory;
    openDevice device;
    bool ready; ///< the port has a memory, and it could be opened
    bytes contents{}; ///< of the first four pages, once they are filled

private:
    bytes m_before{};
};

} // namespace kest::check
