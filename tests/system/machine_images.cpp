#include "tests/system/machine_images.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace kest::test
{

void OwnMachine::power(const std::string& text)
{
    std::ofstream(folder() / "machine.toml") << text;
    machine = sim::openMachine(folder(), false);
    wires = machine->findBus("planar", "");
}

void OwnMachine::fill(const std::string& image, const Bytes& data) const
{
    std::ofstream(folder() / image, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

Bytes OwnMachine::image(const std::string& name) const
{
    std::ifstream file(folder() / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

Bytes OwnMachine::with(Bytes before, std::size_t offset, const Bytes& data)
{
    // the result then differs from an image that is too short
    before.resize(std::max(before.size(), offset + data.size()));
    std::ranges::copy(data, before.begin() + static_cast<std::ptrdiff_t>(offset));
    return before;
}

} // namespace kest::test
