/// The store of a build with SQLite: the database of the state folder.
#pragma once

#include <memory>

#include "platform/host/errorlog/entrystore.h"
#include "platform/host/errorlog/limits.h"
#include "platform/host/errorlog/places.h"
#include "platform/host/errorlog/sqlite/database.h"

namespace kest::host
{

class sqliteStore final : public entryStore
{
public:
    sqliteStore(const logFiles& files, const logLimits& limits);

    storeOpening open(const patience& wait) override;
    [[nodiscard]] bool isOpen() const override { return m_writer != nullptr; }
    void close() noexcept override { m_writer.reset(); }
    bool add(std::span<const entryRow> rows, bool skipKnown, const patience& wait) override;
    [[nodiscard]] const std::string& problem() const override { return m_writer->problem(); }
    [[nodiscard]] bool busy() const override { return m_writer->busy(); }
    [[nodiscard]] bool replaced() const override { return m_writer->replaced(); }
    std::string clear(const patience& wait) override;
    void read(const entryFilter& filter, std::vector<loggedEntry>& entries, std::string& problem) const override;
    bool highestId(std::uint32_t limit, std::uint32_t& highest) const override;
    [[nodiscard]] std::string check() const override;

private:
    openedDatabase openWriter(const patience& wait);
    bool clearOnce(const patience& wait, std::string& problem, bool& newer);

    logFiles m_files;
    spool m_spool; ///< of the state folder
    logLimits m_limits;
    std::unique_ptr<database> m_writer;
};

} // namespace kest::host
