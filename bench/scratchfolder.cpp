#include "bench/scratchfolder.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

namespace kest::bench
{

scratchFolder::scratchFolder(const std::filesystem::path& where)
{
    std::string name = (where / "kest-bench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no scratch folder in " + where.string());
    }
    m_path = name;
}

scratchFolder::~scratchFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

} // namespace kest::bench
