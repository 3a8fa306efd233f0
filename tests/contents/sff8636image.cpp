/// The comments name the tables of SFF-8636 revision 2.10a.
#include "tests/contents/sff8636image.h"

#include <algorithm>
#include <string_view>

namespace kest::contents::test
{
namespace
{

void put(Bytes& image, std::size_t at, std::string_view text)
{
    std::copy(text.begin(), text.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
}

void put(Bytes& image, std::size_t at, const Bytes& bytes)
{
    std::copy(bytes.begin(), bytes.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
}

} // namespace

Bytes longReachModule()
{
    Bytes image(256, 0x00);
    // lower page, table 6-1: QSFP28, revision 2.8 to 2.10, paged, no interrupt
    put(image, 0, fromHex("11 08 02"));
    // table 6-4, 6-5: receiver 3 without signal; transmitter 1 faulty; voltage below its warning
    put(image, 3, fromHex("04 01 00 00 10"));
    // table 6-6: received power of channel 3 below alarm and warning
    put(image, 9, fromHex("00 50"));
    // table 6-7: 38.5 degrees; 3.2854 V
    put(image, 22, fromHex("26 80"));
    put(image, 26, fromHex("80 56"));
    // table 6-8: received power 1.0, 0.5, 0, 6.5535 mW; bias 40, 41, 0, 42 mA; transmitted power 1.2 mW in each
    put(image, 34, fromHex("27 10 13 88 00 00 ff ff"));
    put(image, 42, fromHex("4e 20 50 14 00 00 52 08"));
    put(image, 50, fromHex("2e e0 2e e0 2e e0 2e e0"));
    // table 6-9: transmitter 4 disabled; power override, classes 5 to 7 enabled; all CDRs on
    put(image, 86, fromHex("08"));
    put(image, 93, fromHex("05"));
    put(image, 98, fromHex("ff"));
    // upper page 00h, table 6-14: QSFP28; power class 4, both CDRs, class 5; LC
    put(image, 128, fromHex("11 cd 07"));
    // table 6-17: bit 7 of byte 131, as byte 192 says; 64B/66B; FF, as byte 222 says
    put(image, 131, fromHex("80"));
    put(image, 139, fromHex("05 ff"));
    // table 6-18, 6-20: 10 km; 1310 nm DFB, cooled
    put(image, 142, fromHex("0a"));
    put(image, 147, fromHex("44"));
    put(image, 148, "EXAMPLE OPTICS  ");
    put(image, 165, fromHex("00 53 00"));
    put(image, 168, "QX-LR4-10       ");
    put(image, 184, "B2");
    // 1302.35 nm is 26047 of 0.05 nm; 1.035 nm is 207 of 0.005 nm; 70 degrees
    put(image, 186, fromHex("65 bf 00 cf 46"));
    // the low byte of the sum of the bytes 128 to 190
    image[191] = 0x0B;
    // table 6-21, 6-22: 100GBASE-LR4; CDR controls, losses of lock; TX_DISABLE, TX_FAULT
    put(image, 192, fromHex("03 00 f0 18"));
    put(image, 196, "XQ0042A         ");
    put(image, 212, "210930  ");
    // table 6-24: temperature, voltage, average received power, transmitted power; 25750 MBd is 103 of 250 MBd
    put(image, 220, fromHex("3c 10 67"));
    // and of the bytes 192 to 222
    image[223] = 0xFD;
    return image;
}

} // namespace kest::contents::test
