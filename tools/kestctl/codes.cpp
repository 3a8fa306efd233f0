#include "tools/kestctl/codes.h"

#include <algorithm>
#include <array>
#include <span>

namespace kest::tools
{
namespace
{

struct codeRow {
    std::uint32_t code;
    const char* text;
};

const char* textOf(std::span<const codeRow> rows, std::uint32_t code)
{
    const auto row = std::ranges::find(rows, code, &codeRow::code);
    return row == rows.end() ? "" : row->text;
}

constexpr std::array reasons{
    codeRow{0x1301, "no such attribute"},
    codeRow{0x1302, "the chain of devices is not valid"},
    codeRow{0x1303, "the read mode could not be read from the registry"},
    codeRow{0x1304, "the registry holds no known read mode"},
    codeRow{0x1305, "the persisted copy could not be read"},
    codeRow{0x1306, "the device has no persisted copy"},
    codeRow{0x1307, "the caller's data pointer was not null"},
    codeRow{0x1308, "the persisted copy could not be written"},
    codeRow{0x1309, "the device's detect state is unusual"},
    codeRow{0x130A, "the device is absent"},
    codeRow{0x130B, "open: bus or node gone"},
    codeRow{0x130C, "open failed"},
    codeRow{0x130D, "a lock that is held already"},
    codeRow{0x130E, "configuration failed"},
    codeRow{0x130F, "first-failure data could not be released"},
    codeRow{0x1310, "first-failure data could not be collected"},
    codeRow{0x1311, "nothing answers, or no such bus"},
    codeRow{0x1312, "read failed or fell short"},
    codeRow{0x1313, "seek failed"},
    codeRow{0x1314, "write failed or fell short"},
    codeRow{0x1315, "the device text was not understood"},
    codeRow{0x1316, "close met a lock that is held already"},
    codeRow{0x1317, "close failed"},
    codeRow{0x1318, "no such node"},
    codeRow{0x1319, "hub: malformed command"},
    codeRow{0x131A, "hub: the device behind it did not answer"},
    codeRow{0x131B, "hub: the sub-bus failed again after its reset"},
    codeRow{0x131C, "hub: no such port"},
    codeRow{0x131D, "hub: transfer too long"},
    codeRow{0x131E, "hub: hardware fault"},
    codeRow{0x131F, "hub: unknown status"},
    codeRow{0x1321, "hub: the sub-bus reset did not end well"},
    codeRow{0x1322, "message: unknown type"},
    codeRow{0x1324, "message: shorter than its head"},
    codeRow{0x1325, "message: shorter than its text"},
    codeRow{0x1326, "message: shorter than its data"},
    codeRow{0x1327, "message: no text for this device number"},
    codeRow{0x1328, "the bus could not be reset after a time-out"},
    codeRow{0x1329, "the thermal sensor could not be read"},
    codeRow{0x132A, "the hub's status could not be read before a transfer"},
    codeRow{0x132B, "an argument is missing, or a buffer could not be had"},
    codeRow{0x132C, "not for this device type"},
    codeRow{0x132D, "the device has no such register"},
    codeRow{0x132E, "no device object for this type"},
    codeRow{0x132F, "the device is locked"},
    codeRow{0x1330, "the chain does not end in a SEEPROM"},
    codeRow{0x13FF, "not supported"},
    codeRow{0x1401, "a null argument, a name, or a malformed root"},
    codeRow{0x1402, "past the end of the persisted copy"},
    codeRow{0x1403, "a write without a persisted copy"},
    codeRow{0x1404, "the file of the persisted copy failed"},
    codeRow{0x1405, "the device table has no such number there"},
    codeRow{0x1406, "no memory for the persisted copy"},
    codeRow{0x1501, "a null argument to the registry"},
    codeRow{0x1502, "no such registry key"},
    codeRow{0x1503, "the registry's value does not fit"},
    codeRow{0x1504, "the configuration file is in error"},
    codeRow{0x1601, "kestd: not permitted, or no device to be named"},
    codeRow{0x1602, "kestd: more than 65,536 bytes"},
    codeRow{0x1603, "kestd: the payload is too long"},
    codeRow{0x1604, "kestd: not its protocol"},
    codeRow{0x1605, "kestd: too many clients"},
    codeRow{0x1606, "kestd: the reply is too long"},
    codeRow{0x1607, "kestd: past the end of the device"},
    codeRow{0x1608, "kestd: no memory for the request"},
    codeRow{0x1701, "what was read back differs from what was written"},
    codeRow{0x1702, "the undo file could not be saved"},
};

constexpr std::array libraryModules{
    codeRow{1, "KEST_setAttribute"},
    codeRow{2, "KEST_dpRead"},
    codeRow{3, "KEST_dpWrite"},
    codeRow{4, "KEST_dpConfig"},
    codeRow{5, "read mode"},
    codeRow{6, "KEST_seepromRead"},
    codeRow{7, "KEST_seepromWrite"},
    codeRow{8, "KEST_detectDevice"},
    codeRow{9, "collect first-failure data"},
    codeRow{10, "release first-failure data"},
    codeRow{11, "open"},
    codeRow{12, "configure"},
    codeRow{13, "read"},
    codeRow{14, "seek"},
    codeRow{15, "SEEPROM hardware read"},
    codeRow{16, "first-failure data"},
    codeRow{17, "SEEPROM hardware write, or a hub's reset line"},
    codeRow{18, "write"},
    codeRow{19, "close"},
    codeRow{20, "transfer through a hub"},
    codeRow{22, "hub lock"},
    codeRow{23, "hub lock release"},
    codeRow{24, "955x read"},
    codeRow{25, "955x write"},
    codeRow{26, "device object"},
    codeRow{27, "node name, or the hub's verdict"},
    codeRow{28, "hub sub-bus reset"},
    codeRow{29, "hub command status"},
    codeRow{30, "hub error status"},
    codeRow{31, "reset and retry"},
    codeRow{32, "thermal sensor"},
    codeRow{33, "hub status before a transfer"},
    codeRow{34, "hub reset line"},
    codeRow{35, "955x pin directions"},
    codeRow{36, "955x raw register"},
    codeRow{37, "955x hub reset line"},
    codeRow{38, "device object"},
    codeRow{39, "device object"},
    codeRow{40, "device lock"},
    codeRow{41, "device object"},
    codeRow{42, "device objects of a chain"},
    codeRow{43, "device object"},
    codeRow{255, "kestProcessMsg"},
};

constexpr std::array vpdModules{codeRow{1, "persisted copy read"}, codeRow{2, "persisted copy write"},
                                codeRow{3, "device text of a number"}};
constexpr std::array registryModules{codeRow{1, "registry read"}};
constexpr std::array kestdModules{codeRow{1, "request refused"}};

constexpr std::array subsystems{codeRow{0x55, "IIC device"}, codeRow{0x81, "software"}};
constexpr std::array severities{codeRow{0x10, "recovered"}, codeRow{0x20, "unrecovered"}};
constexpr std::array procedures{codeRow{4, "check the request and the software"},
                                codeRow{6, "check the IIC path to the device"}};
constexpr std::array librarySubsections{
    codeRow{1, "address chain"}, codeRow{2, "source unit"},        codeRow{3, "registry"},
    codeRow{5, "device path"},   codeRow{6, "first-failure data"}, codeRow{7, "device text"},
};
constexpr std::array registrySubsections{codeRow{1, "key"}, codeRow{2, "message of the configuration"}};
constexpr std::array kestdSubsections{codeRow{8, "text of the refusal"}};
constexpr std::array kestctlSubsections{codeRow{7, "device text"}};

/// The numbers that each component counts for itself.
struct componentRow {
    std::uint32_t component;
    std::span<const codeRow> modules;
    std::span<const codeRow> subsections;
};
constexpr std::array components{
    componentRow{0x1300, libraryModules, librarySubsections},
    componentRow{0x1400, vpdModules, {}},
    componentRow{0x1500, registryModules, registrySubsections},
    componentRow{0x1600, kestdModules, kestdSubsections},
    componentRow{0x1700, {}, kestctlSubsections},
};

const char* textOf(std::span<const codeRow> componentRow::*numbers, std::uint32_t component, std::uint32_t number)
{
    const auto* const row = std::ranges::find(components, component, &componentRow::component);
    return row == components.end() ? "" : textOf((*row).*numbers, number);
}

} // namespace

const char* reasonText(std::uint32_t reason) { return textOf(reasons, reason); }
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
