/// Ring files from anybody. Each input is read twice: as the bytes of a ring, and as the payload of a record that is
/// otherwise correct, because no fuzzer guesses check words.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/host/trace/image.h"
#include "platform/host/trace/layout.h"
#include "platform/host/trace/render.h"

namespace
{

using namespace kest::host;
using namespace kest::host::trace;

constexpr std::uint32_t laneUnits = 256;

void render(const ringContents& ring)
{
    for (const traceRecord& record : ring.records) {
        (void)renderRecord(record);
        (void)renderRecord(record, 16);
    }
}

std::vector<std::uint8_t> ringAround(const std::uint8_t* payload, std::size_t size)
{
    std::vector<std::uint8_t> image(sizeof(ringHeader) + laneHeadBytes + laneUnits * unitBytes);
    ringHeader header{};
    std::memcpy(header.magic, ringMagic, sizeof ringMagic);
    header.order = orderMark;
    header.version = layoutVersion;
    header.headerBytes = sizeof header;
    header.lanes = 1;
    header.laneStride = laneHeadBytes + laneUnits * unitBytes;
    header.laneUnits = laneUnits;
    std::memcpy(image.data(), &header, sizeof header);
    const auto bytes = static_cast<std::uint32_t>(std::min(size, maximumPayloadBytes));
    std::vector<std::uint32_t> words(recordBytes(bytes) / sizeof(std::uint32_t));
    words[wordKind] = bytes | (bytes % 3 == 0 ? kindBinary : kindText) << 16;
    std::memcpy(words.data() + recordHeadWords, payload, bytes);
    checkSum check(header.seed);
    for (std::size_t index = 0; index < words.size(); ++index) {
        if (index != wordCheck) {
            check.add(words[index]);
        }
    }
    words[wordCheck] = check.value();
    const std::uint32_t position = recordBytes(bytes) / unitBytes;
    std::memcpy(image.data() + sizeof header, &position, sizeof position);
    std::memcpy(image.data() + sizeof header + laneHeadBytes, words.data(), words.size() * sizeof words[0]);
    return image;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    render(readRingImage({data, size}));
    const ringContents made = readRingImage(ringAround(data, size));
    if (made.records.size() != 1) {
        __builtin_trap();
    }
    render(made);
    return 0;
}
