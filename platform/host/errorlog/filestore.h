/// The store of a build without a database: the spool file of the state folder.
#pragma once

#include "platform/host/errorlog/entrystore.h"
#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/places.h"

namespace kest::host
{

class fileStore final : public entryStore
{
public:
    fileStore(const logFiles& files, const logLimits& limits);

    storeOpening open(const patience& wait) override;
    [[nodiscard]] bool isOpen() const override { return true; }
    void close() noexcept override {}
    bool add(std::span<const entryRow> rows, bool skipKnown, const patience& wait) override;
    [[nodiscard]] const std::string& problem() const override { return m_problem; }
    [[nodiscard]] bool busy() const override { return false; }
    [[nodiscard]] bool replaced() const override { return false; }
    std::string clear(const patience& wait) override;
    void read(const entryFilter& filter, std::vector<loggedEntry>& entries, std::string& problem) const override;
    bool highestId(std::uint32_t limit, std::uint32_t& highest) const override;
    [[nodiscard]] std::string check() const override;

private:
    bool failed(int error) noexcept;

    std::filesystem::path m_folder;
    spool m_lines;
    logLimits m_limits;
    std::string m_problem;
};

} // namespace kest::host
