#include "tools/common/bus.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

#include "platform/mern.h"
#include "tools/common/failure.h"

namespace kest::tools
{
namespace
{

constexpr unsigned layerOptions = 0x80000000;
constexpr int      openFlags    = 0x1002;
constexpr int      readItem     = 1;
constexpr int      statePresent = 3;
constexpr int      kindBusReset = 1;

/// An open bus; closed at the end.
class openBus
{
public:
    openBus(const busName& bus, const std::string& path)
    {
        MernNode node;
        node.number = bus.node == "L" || bus.node == "l" ? -1 : bus.node.front() - '0';
        MernInitialize(layerOptions);
        handle  = mern_iic_open(node, path.c_str(), openFlags);
        m_error = std::memcmp(&handle, &MERN_INVALID, sizeof handle) == 0 ? errno : 0;
    }
    openBus(const openBus&)            = delete;
    openBus& operator=(const openBus&) = delete;
    ~openBus()
    {
        if (m_error == 0)
            mern_iic_close(handle);
    }
    [[nodiscard]] int error() const { return m_error; }

    mern_t handle{};

private:
    int m_error = 0;
};

failure busFailure(int error, const busName& bus, const std::string& step)
{
    const errnoAdvice advice = adviceFor(error);
    return {.code = advice.code, .what = advice.what, .tryThis = {}, .device = bus.path, .step = step};
}

} // namespace

bool answersAt(const busName& bus, std::uint8_t address)
{
    openBus       open(bus, fmt::format("{}@{:02X}", bus.path, address));
    std::uint32_t state = 0;
    return open.error() == 0 &&
           mern_iic_config(open.handle, readItem, WOBU_IIC_DETECT_STATE, &state, sizeof state) == 0 &&
           state == statePresent;
}

void resetBus(const busName& bus)
{
    openBus open(bus, bus.path);
    if (open.error() != 0)
        throw busFailure(open.error(), bus, "open");
    if (mern_iic_reset(open.handle, kindBusReset) != 0)
        throw busFailure(errno, bus, "reset");
}

} // namespace kest::tools
