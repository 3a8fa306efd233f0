#include "kestsession.h"

#include <cstdio>

namespace kest
{

bool iicSession::open(const kest_deviceInfo& device)
{
    kest_wobuOpen(handle, entry, device.devicePath, device.nodeName);
    opened = entry == nullptr;
    return opened;
}

bool iicSession::set(wobu_iic_cfg_t item, void* value, unsigned int size)
{
    kest_wobuConfig(handle, entry, kest_configSet, item, value, size);
    return entry == nullptr;
}

bool iicSession::seek(std::uint32_t position)
{
    // the position is unsigned: a set top bit means a large position, not a negative one
    kest_wobuSeek(handle, entry, static_cast<long>(position), 0);
    return entry == nullptr;
}

bool iicSession::setDmaOption()
{
    // not through the wrapper, on purpose: its failure would make an entry
    std::uint32_t option = 2;
    const bool taken = mern_iic_config(handle, MERN_CONFIG_SET, WOBU_IIC_DMA_OPTION, &option, sizeof option) == 0;
    if (!taken) {
        std::fputs("DMA workaround error\n", stderr);
    }
    return taken;
}

ErrlEntry* iicSession::close()
{
    ErrlEntry* late = nullptr;
    if (opened) {
        kest_wobuClose(handle, late);
    }
    return late;
}

} // namespace kest
