#include "platform/host/errorlog/openstore.h"

#ifdef KEST_HAVE_SQLITE
#include "platform/host/errorlog/sqlite/sqlitestore.h"
#else
#include "platform/host/errorlog/filestore.h"
#endif

namespace kest::host
{

logStorage openStore(const configuration& settings)
{
    const logFiles files(settings);
    logStorage storage{.limits = {settings.errorLogMaxEntries, settings.errorLogMaxBytes},
                       .store = nullptr,
                       .spools = spoolPlaces(settings)};
#ifdef KEST_HAVE_SQLITE
    storage.store = std::make_unique<sqliteStore>(files, storage.limits);
#else
    // the state folder's spool is the store
    storage.store = std::make_unique<fileStore>(files, storage.limits);
    storage.spools.erase(storage.spools.begin());
#endif
    return storage;
}

} // namespace kest::host
