/// What the optical module formats share: names of SFF-8024, "SFF Module Management Reference Code Tables", revision
/// 4.9. Codes that are not here are shown as numbers.
#pragma once

#include "contents/table.h"

namespace kest::contents::sff
{

/// Table 4-3.
inline constexpr named connectors[] = {
    {0x00, "unknown"},
    {0x01, "SC"},
    {0x02, "Fibre Channel style 1 copper"},
    {0x03, "Fibre Channel style 2 copper"},
    {0x04, "BNC/TNC"},
    {0x05, "Fibre Channel coaxial headers"},
    {0x06, "FiberJack"},
    {0x07, "LC"},
    {0x08, "MT-RJ"},
    {0x09, "MU"},
    {0x0A, "SG"},
    {0x0B, "optical pigtail"},
    {0x0C, "MPO 1x12"},
    {0x0D, "MPO 2x16"},
    {0x20, "HSSDC II"},
    {0x21, "copper pigtail"},
    {0x22, "RJ45"},
    {0x23, "no separable connector"},
    {0x24, "MXC 2x16"},
    {0x25, "CS optical connector"},
    {0x26, "SN optical connector"},
    {0x27, "MPO 2x12"},
    {0x28, "MPO 1x16"},
};

/// Table 4-4.
inline constexpr named extendedCompliances[] = {
    {0x00, "not given"},
    {0x01, "100G AOC or 25GAUI C2M AOC, BER 5e-5"},
    {0x02, "100GBASE-SR4 or 25GBASE-SR"},
    {0x03, "100GBASE-LR4 or 25GBASE-LR"},
    {0x04, "100GBASE-ER4 or 25GBASE-ER"},
    {0x05, "100GBASE-SR10"},
    {0x06, "100G CWDM4"},
    {0x07, "100G PSM4"},
    {0x08, "100G ACC or 25GAUI C2M ACC, BER 5e-5"},
    {0x0B, "100GBASE-CR4 or 25GBASE-CR CA-25G-L"},
    {0x0C, "25GBASE-CR CA-25G-S"},
    {0x0D, "25GBASE-CR CA-25G-N"},
    {0x10, "40GBASE-ER4"},
    {0x11, "4 x 10GBASE-SR"},
    {0x12, "40G PSM4"},
    {0x16, "10GBASE-T with SFI interface"},
    {0x17, "100G CLR4"},
    {0x18, "100G AOC or 25GAUI C2M AOC, BER 1e-12"},
    {0x19, "100G ACC or 25GAUI C2M ACC, BER 1e-12"},
    {0x1C, "10GBASE-T short reach"},
    {0x1D, "5GBASE-T"},
    {0x1E, "2.5GBASE-T"},
    {0x1F, "40G SWDM4"},
    {0x20, "100G SWDM4"},
    {0x21, "100G PAM4 BiDi"},
    {0x22, "100G 4WDM-10"},
    {0x23, "100G 4WDM-20"},
    {0x24, "100G 4WDM-40"},
    {0x25, "100GBASE-DR"},
    {0x26, "100GBASE-FR1"},
    {0x27, "100GBASE-LR1"},
    {0x40, "50GBASE-CR, 100GBASE-CR2 or 200GBASE-CR4"},
    {0x41, "50GBASE-SR, 100GBASE-SR2 or 200GBASE-SR4"},
    {0x42, "50GBASE-FR or 200GBASE-DR4"},
    {0x43, "200GBASE-FR4"},
    {0x45, "50GBASE-LR"},
    {0x46, "200GBASE-LR4"},
};

} // namespace kest::contents::sff
