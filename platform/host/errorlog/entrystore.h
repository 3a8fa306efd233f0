/// Where entries are kept for good.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host/errorlog/record.h"
#include "platform/host/errorlog/waiting.h"

namespace kest::host
{

/// One entry as a store takes it.
struct entryRow {
    entryKeys keys;
    std::string_view line; ///< its JSON form
};

/// What came of opening a store.
struct storeOpening {
    bool isOpen = false;
    std::string problem = {}; ///< why it is not open
    bool busy = false; ///< others kept it busy for too long
    std::string note = {}; ///< what people should know: that a foreign file was set aside
};

/// For one thread at a time. Reading needs no open store and no permission to write. Only open() and what reads may
/// throw, and only for lack of memory.
class entryStore
{
public:
    entryStore() = default;
    entryStore(const entryStore&) = delete;
    entryStore& operator=(const entryStore&) = delete;
    virtual ~entryStore() = default;

    /// Makes the store ready to write, unless it is, and still the one at its place. Makes it when there is none.
    virtual storeOpening open(const patience& wait) = 0;
    [[nodiscard]] virtual bool isOpen() const = 0;
    /// No store is open during a fork.
    virtual void close() noexcept = 0;

    /// Adds entries, durable on return, and drops what passes the limits. The store is open.
    /// @param skipKnown  leaves out entries that are there already, byte for byte
    virtual bool add(std::span<const entryRow> rows, bool skipKnown, const patience& wait) = 0;
    /// @return what failed last
    [[nodiscard]] virtual const std::string& problem() const = 0;
    /// @return whether it failed because others kept the store busy
    [[nodiscard]] virtual bool busy() const = 0;
    /// @return whether another store lies in its place by now, so that opening again may help
    [[nodiscard]] virtual bool replaced() const = 0;

    /// Deletes every entry; a store that is damaged is set aside. @return why it failed; empty when it is done
    virtual std::string clear(const patience& wait) = 0;

    /// Adds the matching entries to `entries`, the latest first. No store is no entries.
    /// @param[out] problem  why entries may be missing
    virtual void read(const entryFilter& filter, std::vector<loggedEntry>& entries, std::string& problem) const = 0;
    /// @param[out] highest  the highest entry identifier not above `limit`, 0 when there is none
    /// @return whether the store could be read
    virtual bool highestId(std::uint32_t limit, std::uint32_t& highest) const = 0;
    /// Reads all of it. @return what is wrong; empty when nothing is
    [[nodiscard]] virtual std::string check() const = 0;
};

} // namespace kest::host
