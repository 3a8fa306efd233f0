#include "tools/kestctl/codes.h"

#include <algorithm>
#include <array>
#include <span>

#include "base/component.h"
#include "kest/reasons.h"

namespace kest::tools
{
namespace
{

using codeRow = kest_codeText;

const char* textOf(std::span<const codeRow> rows, std::uint32_t code)
{
    const auto row = std::ranges::find(rows, code, &codeRow::code);
    return row == rows.end() ? "" : row->text;
}

/// Of the services and the tools. The library has its own list.
constexpr std::array reasons{
    codeRow{0x1401, "a null argument, a name, or a malformed root"},
    codeRow{0x1402, "past the end of the persisted copy"},
    codeRow{0x1403, "a write without a persisted copy"},
    codeRow{0x1404, "the file of the persisted copy failed"},
    codeRow{0x1405, "the device table has no such number there"},
    codeRow{0x1406, "no memory for the persisted copy"},
    codeRow{0x1407, "the persisted copy is damaged"},
    codeRow{0x1501, "a null argument to the registry"},
    codeRow{0x1502, "no such registry key"},
    codeRow{0x1503, "the registry's value does not fit"},
    codeRow{0x1504, "the configuration file is in error"},
    codeRow{0x1505, "no memory to read the configuration"},
    codeRow{0x1601, "kestd: not permitted, or no device to be named"},
    codeRow{0x1602, "kestd: more than 65,536 bytes"},
    codeRow{0x1603, "kestd: the payload is too long"},
    codeRow{0x1604, "kestd: not its protocol"},
    codeRow{0x1605, "kestd: too many clients"},
    codeRow{0x1606, "kestd: the reply is too long"},
    codeRow{0x1607, "kestd: past the end of the device"},
    codeRow{0x1608, "kestd: no memory for the request"},
    codeRow{0x1609, "kestd: others have the device"},
    codeRow{0x160A, "kestd: the device can't be locked"},
    codeRow{0x160B, "kestd: the part is not the one that the device table expects"},
    codeRow{0x1701, "what was read back differs from what was written"},
    codeRow{0x1702, "the undo file could not be saved"},
    codeRow{0x1703, "the part is not the one that the device table expects"},
    codeRow{0x1704, "the chip is write-protected"},
    codeRow{0x1705, "two reads of the same bytes differ"},
    codeRow{0x1706, "the reads through a hub did not settle"},
    codeRow{0x1707, "the reads of a vote have no majority"},
    codeRow{0x1708, "fewer bytes were moved than asked for"},
};

constexpr std::array vpdModules{codeRow{1, "persisted copy read"}, codeRow{2, "persisted copy write"},
                                codeRow{3, "device text of a number"}};
constexpr std::array vpdSubsections{codeRow{1, "root of the copy"}, codeRow{2, "file of the copy"}};
constexpr std::array registryModules{codeRow{1, "registry read"}};
constexpr std::array kestdModules{codeRow{1, "request refused"}};

constexpr std::array subsystems{codeRow{0x55, "IIC device"}, codeRow{0x81, "software"}};
constexpr std::array severities{codeRow{0x10, "recovered"}, codeRow{0x20, "unrecovered"}};
constexpr std::array procedures{codeRow{4, "check the request and the software"},
                                codeRow{6, "check the IIC path to the device"}};
constexpr std::array registrySubsections{codeRow{1, "key"}, codeRow{2, "message of the configuration"}};
constexpr std::array kestdSubsections{codeRow{7, "device text"}, codeRow{8, "text of the refusal"}};
constexpr std::array kestctlSubsections{codeRow{7, "device text"}, codeRow{9, "what the bus showed afterwards"}};

static_assert(componentLibrary == kest_component);

/// The numbers that each component counts for itself.
struct componentRow {
    std::uint32_t component;
    std::span<const codeRow> modules;
    std::span<const codeRow> subsections;
};
constexpr std::array components{
    componentRow{kest_component, kest_moduleTexts, kest_detailsTexts},
    componentRow{componentVpd, vpdModules, vpdSubsections},
    componentRow{componentRegistry, registryModules, registrySubsections},
    componentRow{componentService, kestdModules, kestdSubsections},
    componentRow{componentTools, {}, kestctlSubsections},
};

const char* textOf(std::span<const codeRow> componentRow::*numbers, std::uint32_t component, std::uint32_t number)
{
    const auto* const row = std::ranges::find(components, component, &componentRow::component);
    return row == components.end() ? "" : textOf((*row).*numbers, number);
}

} // namespace

const char* reasonText(std::uint32_t reason)
{
    const char* const text = textOf(kest_reasonTexts, reason);
    return *text != '\0' ? text : textOf(reasons, reason);
}
const char* moduleText(std::uint32_t component, std::uint32_t module)
{
    return textOf(&componentRow::modules, component, module);
}
const char* subsystemText(std::uint32_t subsystem) { return textOf(subsystems, subsystem); }
const char* severityText(std::uint32_t severity) { return textOf(severities, severity); }
const char* procedureText(std::uint32_t procedure) { return textOf(procedures, procedure); }
const char* subsectionText(std::uint32_t component, std::uint8_t subsection)
{
    return textOf(&componentRow::subsections, component, subsection);
}

} // namespace kest::tools
