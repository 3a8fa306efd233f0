#include "tests/host/vpd/servedcopies.h"

#include "platform/tavo.h"

namespace kest::test
{

namespace
{

constexpr const char* root = "qorn/P3_Root";

} // namespace

Bytes pattern(std::size_t count)
{
    Bytes bytes(count);
    for (std::size_t at = 0; at < count; ++at) {
        bytes[at] = static_cast<std::uint8_t>(at * 7 + at / 4096);
    }
    return bytes;
}

ServedCopies::ServedCopies()
{
    // makes the folder
    EXPECT_EQ(0, host::replaceCopy(1, Bytes{0}));
}

void ServedCopies::put(std::uint32_t number, const Bytes& file) const
{
    folder.write("state/" + name(number), std::string(file.begin(), file.end()));
}

Bytes ServedCopies::fileOf(std::uint32_t number) const
{
    const std::string file = folder.read("state/" + name(number));
    return {file.begin(), file.end()};
}

void ServedCopies::flip(std::uint32_t number, std::size_t bit) const
{
    Bytes file = fileOf(number);
    file.at(bit / 8) ^= static_cast<std::uint8_t>(1U << bit % 8);
    put(number, file);
}

Bytes ServedCopies::read(unsigned int number, unsigned int wanted, unsigned int offset)
{
    unsigned char* data = nullptr;
    unsigned int length = wanted;
    entry.reset(tavo_read_data_persistancy(root, number, nullptr, &data, &length, offset));
    EXPECT_EQ(entry != nullptr || length == 0, data == nullptr);
    EXPECT_TRUE(entry == nullptr || length == wanted) << "unchanged after a failure";
    const Bytes bytes = data != nullptr ? Bytes(data, data + length) : Bytes{};
    tavo_util_free(reinterpret_cast<void**>(&data));
    return bytes;
}

bool ServedCopies::write(unsigned int number, const Bytes& bytes, unsigned int offset)
{
    auto length = static_cast<unsigned int>(bytes.size());
    entry.reset(tavo_write_data_persistancy(root, number, nullptr, bytes.data(), &length, offset));
    return entry == nullptr;
}

std::vector<std::uint32_t> ServedCopies::why() const
{
    if (entry == nullptr) {
        return {};
    }
    unsigned int count = 0;
    return {entry->getRC(), entry->getSRC(0)->getHexData(count)[7]};
}

std::string ServedCopies::textOf(std::uint8_t subsection) const
{
    for (const host::loggedDetails& each : host::describeEntry(*entry).userDetails) {
        if (each.component == 0x1400 && each.subsection == subsection) {
            return {each.bytes.begin(), each.bytes.end()};
        }
    }
    return "none";
}

} // namespace kest::test
