/// /dev/i2c-7 of a stand-in for the kernel, with a 24C256 at 0xA0.
#pragma once

#include <gtest/gtest.h>

#include "tests/host/fakekernel.h"
#include "tests/host/iic_support.h"

namespace kest::test
{

class LinuxBus : public testing::Test
{
protected:
    LinuxBus() { kernel.chips[0x50] = {.memory = pattern(32768)}; }

    static Block eeprom() { return {.address = 0xA0, .offsetLength = 2, .pageSize = 64}; }
    FakeChip& chip() { return kernel.chips[0x50]; }

    OwnConfiguration settings;
    FakeKernel kernel;
};

} // namespace kest::test
