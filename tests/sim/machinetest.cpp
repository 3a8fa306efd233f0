#include "tests/sim/machinetest.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace kest::sim::test
{

Folder::Folder()
{
    std::string name = (std::filesystem::temp_directory_path() / "kest-sim-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error{"no temporary folder"};
    }
    path = name;
}

void Folder::put(const std::string& name, const std::string& text) const
{
    std::ofstream{path / name, std::ios::binary} << text;
}

std::string Folder::text(const std::string& name) const
{
    std::ifstream in{path / name, std::ios::binary};
    return {std::istreambuf_iterator<char>{in}, {}};
}

std::uint32_t MachineTest::value(const std::string& chipLabel, const std::string& name)
{
    for (const auto& line : machine->registers()) {
        if (line.chip == chipLabel && line.name == name) {
            return line.value;
        }
    }
    ADD_FAILURE() << "no register " << name << " of " << chipLabel;
    return 0xDEADBEEF;
}

std::string MachineTest::meaning(const std::string& chipLabel, const std::string& name)
{
    for (const auto& line : machine->registers()) {
        if (line.chip == chipLabel && line.name == name) {
            return line.meaning;
        }
    }
    return "no such register";
}

Bytes counting(std::size_t count, std::uint8_t first)
{
    Bytes all;
    for (std::size_t i = 0; i < count; ++i) {
        all.push_back(static_cast<std::uint8_t>(first + i));
    }
    return all;
}

Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace kest::sim::test
