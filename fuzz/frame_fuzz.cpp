/// Frames from hostile peers. However the bytes are cut, the same frames come out, and never more than one frame is
/// held. A frame that is encoded again has the bytes that it was read from.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "tools/client/frame.h"

namespace
{

using namespace kest::client;
using stage = frameAssembler::stage;

constexpr std::uint32_t payloadLimit = 600;

void require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

/// Reads the frames of a stream, up to the first one that is refused. @return the frames, encoded again
std::vector<std::uint8_t> reassemble(std::span<const std::uint8_t> stream, std::size_t pieceBytes)
{
    frameAssembler assembler(payloadLimit);
    std::vector<std::uint8_t> written;
    while (!stream.empty() && assembler.state() == stage::incomplete) {
        const std::size_t used = assembler.feed(stream.first(std::min(pieceBytes, stream.size())));
        require(used > 0);
        stream = stream.subspan(used);
        if (assembler.state() == stage::complete) {
            const frame message = assembler.take();
            require(message.payload.size() <= payloadLimit);
            const std::vector<std::uint8_t> bytes = encodeFrame(message);
            written.insert(written.end(), bytes.begin(), bytes.end());
        }
    }
    return written;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::span<const std::uint8_t> stream(data, size);
    const std::vector<std::uint8_t> whole = reassemble(stream, size + 1);
    require(whole.size() <= size && std::equal(whole.begin(), whole.end(), data));
    for (const std::size_t pieceBytes : {std::size_t{1}, std::size_t{3}, std::size_t{19}, std::size_t{21}}) {
        require(reassemble(stream, pieceBytes) == whole);
    }
    return 0;
}
