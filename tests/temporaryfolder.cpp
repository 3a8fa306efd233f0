#include "tests/temporaryfolder.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>
#include <unistd.h>

namespace kest::test
{
namespace
{

std::filesystem::path parentOf(TemporaryFolder::Place place)
{
    const std::filesystem::path memory = "/dev/shm";
    const bool usable = place == TemporaryFolder::inMemory && access(memory.c_str(), W_OK | X_OK) == 0;
    return usable ? memory : std::filesystem::temp_directory_path();
}

} // namespace

TemporaryFolder::TemporaryFolder(Place place)
{
    std::string name = parentOf(place) / "kest-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    m_path = name;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

} // namespace kest::test
