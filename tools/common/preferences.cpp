#include "tools/common/preferences.h"

namespace kest::tools
{

preferences& preferred()
{
    static preferences theOnes;
    return theOnes;
}

} // namespace kest::tools
