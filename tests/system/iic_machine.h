/// A simulated machine for the tests of the IIC layer: SEEPROMs of several sizes, one protected, others behind a hub, a
/// second node.
#pragma once

#include "tests/system/machine_images.h"

namespace kest::test
{

class IicMachine : public OwnMachine
{
protected:
    explicit IicMachine(double writeCycleMs = 3.5);

    [[nodiscard]] double busMs() const { return static_cast<double>(wires->busTimeNs()) / 1e6; }

    static Block main256() { return {.address = 0xA0, .offsetLength = 2, .pageSize = 64}; }
    static Block small02() { return {.address = 0xA8, .offsetLength = 1, .pageSize = 8}; }
    static Block hub128() { return {.address = 0x80, .offsetLength = 4, .pageSize = 64}; }
    static Block hub02() { return {.address = 0x80, .offsetLength = 3, .pageSize = 8}; }
    static constexpr long onRiser = 0x03A20000;
    static constexpr long onCard = 0x01A600;
};

} // namespace kest::test
