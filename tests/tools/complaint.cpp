#include "tests/tools/complaint.h"

#include "tools/common/failure.h"

namespace kest::test
{

std::string complaint(const std::function<void()>& step)
{
    try {
        step();
    } catch (const tools::failure& why) {
        return std::to_string(why.code) + " " + why.what;
    }
    return {};
}

} // namespace kest::test
