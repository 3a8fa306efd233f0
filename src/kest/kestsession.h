/// One open device of the IIC layer: the steps that every transfer is made of.
#pragma once

#include <cstdint>

#include "kest/address.h"
#include "kestmisc.h"
#include "kestwobu.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

/// Each step returns true when there is no entry after it.
struct iicSession {
    ErrlEntry*& entry;
    mern_t handle = MERN_INVALID;
    bool opened = false; ///< by this session, which must then close it

    bool open(const kest_deviceInfo& device);
    /// Sets an item of the layer. @param value  of `size` bytes
    bool set(wobu_iic_cfg_t item, void* value, unsigned int size);
    bool setBlock(mern_iic_block& block) { return set(WOBU_IIC_BLOCK, &block, sizeof block); }
    bool setSpeed(std::uint32_t speedKhz) { return set(WOBU_IIC_SPEED, &speedKhz, sizeof speedKhz); }
    bool seek(std::uint32_t position);
    /// Sets the DMA option before a read. A layer that refuses it makes no entry, only a line on standard error.
    /// @return whether the layer took it
    bool setDmaOption();
    /// Closes what was opened here. @return the failure of the close, the caller's; null when there is none
    ErrlEntry* close();
};

} // namespace kest
