#include "tools/common/watchedreads.h"

namespace kest::tools
{

byteVector watchedReads::read(const byteRange& range, const std::string& step)
{
    m_width.willRead(range);
    return m_chip.read(range, step);
}

bytesReader watchedReads::reader(const std::string& step)
{
    return [watched = *this, step](const byteRange& range) mutable { return watched.read(range, step); };
}

} // namespace kest::tools
