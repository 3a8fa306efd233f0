#include "platform/host/iic/pagewaits.h"

#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "base/fork.h"

namespace kest::host::iic
{
namespace
{

/// Never destroyed: writes may end as late as they like.
struct waitTable {
    using key = std::pair<std::string, std::uint8_t>;

    static waitTable& instance()
    {
        static auto* const made = new waitTable;
        return *made;
    }
    void beforeFork() { guard.lock(); }
    void afterFork(bool /*inChild*/) { guard.unlock(); }

    std::mutex guard;
    std::map<key, pageWaits> targets;

private:
    waitTable() { watchForks<waitTable>(); }
};
[[maybe_unused]] const waitTable& madeAtLoad = waitTable::instance();

waitTable::key keyOf(const busIdentity& identity, std::uint8_t target)
{
    return {(identity.folder / identity.name).string(), target};
}

} // namespace

void pageWaitCount::note(std::uint32_t page, std::optional<std::uint32_t> polls)
{
    if (m_page != page) {
        m_page = page;
        m_busy = false;
        m_unasked = false;
        ++m_sums.pages;
    }
    m_sums.lastPolls = polls.value_or(0);
    if (!polls && !m_unasked) {
        m_unasked = true;
        ++m_sums.unaskedPages;
    }
    if (m_sums.lastPolls != 0 && !m_busy) {
        m_busy = true;
        ++m_sums.busyPages;
    }
}

void addPageWaits(const busIdentity& identity, std::uint8_t target, const pageWaits& waits) noexcept
{
    if (waits.pages == 0) {
        return;
    }
    try {
        waitTable& table = waitTable::instance();
        waitTable::key key = keyOf(identity, target);
        const std::scoped_lock lock(table.guard);
        pageWaits& sums = table.targets[std::move(key)];
        sums.pages += waits.pages;
        sums.busyPages += waits.busyPages;
        sums.unaskedPages += waits.unaskedPages;
        sums.lastPolls = waits.lastPolls;
    } catch (const std::exception&) {
        // no memory: it is not known then
    }
}

pageWaits pageWaitsOf(const busIdentity& identity, std::uint8_t target)
{
    waitTable& table = waitTable::instance();
    const waitTable::key key = keyOf(identity, target);
    const std::scoped_lock lock(table.guard);
    const auto found = table.targets.find(key);
    return found == table.targets.end() ? pageWaits{} : found->second;
}

} // namespace kest::host::iic
