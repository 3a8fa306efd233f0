/// Areas that show what was recorded: error entries and traces.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/kestctl/context.h"

namespace kest::tools
{

/// Which entries are wanted.
struct errorsFilter {
    std::string since; ///< date, time or "2h"; empty: all
    std::optional<std::uint32_t> severity;
    std::optional<std::uint32_t> component;
    std::uint32_t limit = 0; ///< the latest so many; 0 all
};

struct errorsListOptions {
    errorsFilter filter;
};
int runErrorsList(const context& shared, const errorsListOptions& options);

struct errorsShowOptions {
    std::string id; ///< number, or "last"
};
int runErrorsShow(const context& shared, const errorsShowOptions& options);

struct errorsExportOptions {
    errorsFilter filter;
    std::string file = "-";
};
/// Writes whole entries as JSON lines, oldest first.
int runErrorsExport(const context& shared, const errorsExportOptions& options);

struct errorsClearOptions {
    bool yes = false;
};
int runErrorsClear(const context& shared, const errorsClearOptions& options);

struct traceOptions {
    std::optional<std::uint32_t> pid; ///< one process
    std::string buffer; ///< one buffer: "kest", "IIC"; empty all
    std::uint32_t last = 0; ///< the latest so many records; 0 all
    bool list = false; ///< the rings, not their records
    std::string folder; ///< of rings to read instead of the configured one
};
int runTrace(const context& shared, const traceOptions& options);

} // namespace kest::tools
