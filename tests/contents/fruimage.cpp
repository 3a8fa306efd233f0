#include "tests/contents/fruimage.h"

namespace kest::contents::test
{

Bytes fullFru()
{
    return fromHex("01 01 02 04 08 0c 00 e4 "
                   // internal use
                   "01 73 63 72 61 74 63 68 "
                   // chassis: type 0x17, BCD plus "1234-5.6", "S-1"
                   "01 02 17 44 12 34 b5 c6 c3 53 2d 31 c1 00 00 ac "
                   // board: language 25, minute 0x0F1234, "Acme", "IPMI" in 6 bits, "42", nothing, nothing, "Öé"
                   "01 04 19 34 12 0f c4 41 63 6d 65 83 29 dc a6 c2 34 32 c0 00 c2 d6 e9 c1 00 00 00 00 00 00 00 fb "
                   // product: language 53, two names in UTF-16, "P7", nothing, "SN9"
                   "01 04 35 c4 41 00 e9 00 c4 08 8a 68 56 c2 50 37 c0 c3 53 4e 39 c0 c0 c1 00 00 00 00 00 00 00 dd "
                   // power supply
                   "00 02 18 52 94 ee 12 84 03 1e 05 28 23 90 33 50 46 20 67 2f 3f 14 0e 52 23 32 96 00 0c "
                   // DC output
                   "01 02 0d 44 ac 82 50 fb 14 fb 8c fb 78 00 00 00 dc 05 "
                   // management access: a URL, a unique ID
                   "03 02 0a c7 2a 01 68 74 74 70 3a 2f 2f 73 6d "
                   "03 02 11 81 69 07 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f "
                   // base compatibility, a type that is not known, OEM
                   "04 02 07 2e c5 a2 12 00 0a 02 03 0f "
                   "50 02 02 ef bd 09 08 "
                   "c5 82 05 49 6b a2 12 00 01 02");
}

Bytes changedFru(std::size_t at, std::uint8_t value)
{
    Bytes image = fullFru();
    image.at(at) = value;
    return image;
}

} // namespace kest::contents::test
