/// @file
/// The numbers in the library's error entries, with words for them.
#pragma once

#include <array>
#include <cstdint>

namespace kest
{

/// The library's component number: in each of its SRCs, and as creator of each of its entries.
constexpr std::uint16_t kest_component = 0x1300;

/// What failed. A return code is one of these with the bits of a class (below).
enum kest_reason : std::uint32_t {
    KEST_REASON_NO_ATTRIBUTE = 0x1301,
    KEST_REASON_CHAIN_INVALID = 0x1302,
    KEST_REASON_MODE_UNREAD = 0x1303,
    KEST_REASON_MODE_UNKNOWN = 0x1304,
    KEST_REASON_COPY_UNREAD = 0x1305,
    KEST_REASON_COPY_ABSENT = 0x1306,
    KEST_REASON_POINTER_IN_USE = 0x1307,
    KEST_REASON_COPY_UNWRITTEN = 0x1308,
    KEST_REASON_DETECT_STATE = 0x1309,
    KEST_REASON_DEVICE_ABSENT = 0x130A,
    KEST_REASON_OPEN_GONE = 0x130B,
    KEST_REASON_OPEN = 0x130C,
    KEST_REASON_DEADLOCK = 0x130D,
    KEST_REASON_CONFIG = 0x130E,
    KEST_REASON_FFDC_UNLOCK = 0x130F,
    KEST_REASON_FFDC_EXTRACT = 0x1310,
    KEST_REASON_NO_ANSWER = 0x1311,
    KEST_REASON_READ = 0x1312,
    KEST_REASON_SEEK = 0x1313,
    KEST_REASON_WRITE = 0x1314,
    KEST_REASON_TEXT_MALFORMED = 0x1315,
    KEST_REASON_CLOSE_DEADLOCK = 0x1316,
    KEST_REASON_CLOSE = 0x1317,
    KEST_REASON_NO_NODE = 0x1318,
    KEST_REASON_HUB_COMMAND = 0x1319,
    KEST_REASON_HUB_NO_ANSWER = 0x131A,
    KEST_REASON_HUB_REPEAT = 0x131B,
    KEST_REASON_HUB_PORT = 0x131C,
    KEST_REASON_HUB_LENGTH = 0x131D,
    KEST_REASON_HUB_HARDWARE = 0x131E,
    KEST_REASON_HUB_STATUS = 0x131F,
    KEST_REASON_HUB_BUS_RESET = 0x1321,
    KEST_REASON_MESSAGE_TYPE = 0x1322,
    KEST_REASON_MESSAGE_HEAD = 0x1324,
    KEST_REASON_MESSAGE_TEXT = 0x1325,
    KEST_REASON_MESSAGE_DATA = 0x1326,
    KEST_REASON_NO_LOCATION = 0x1327,
    KEST_REASON_BUS_RESET = 0x1328,
    KEST_REASON_SENSOR = 0x1329,
    KEST_REASON_HUB_QUERY = 0x132A,
    KEST_REASON_MISSING = 0x132B,
    KEST_REASON_DEVICE_TYPE = 0x132C,
    KEST_REASON_NO_REGISTER = 0x132D,
    KEST_REASON_NO_OBJECT = 0x132E,
    KEST_REASON_LOCKED = 0x132F,
    KEST_REASON_NO_SEEPROM = 0x1330,
    KEST_REASON_UNSUPPORTED = 0x13FF,
};

/// Classes of return codes. A failure of a device or its bus that is not listed here has none of these bits.
/// The software, or what it was asked to do, is at fault; also the class of a failed detection or sensor reading.
constexpr std::uint32_t kest_classFailure = 0x80000000;
constexpr std::uint32_t kest_classInformational = 0x40000000; ///< nothing answers, no such bus, no persisted copy
constexpr std::uint32_t kest_classHubFailed = 0x10000000; ///< a hub or its sub-bus failed
constexpr std::uint32_t kest_classHubRefused = 0x00100000; ///< a hub refused the command, or did not report its status

/// Return code of a transfer through a silent hub, which was then reset. The next transfer can work.
constexpr std::uint32_t kest_codeHubWasReset = 0x41000000;

/// Which function failed.
enum kest_module : std::uint32_t {
    KEST_MODULE_SET_ATTRIBUTE = 1,
    KEST_MODULE_DP_READ = 2,
    KEST_MODULE_DP_WRITE = 3,
    KEST_MODULE_DP_CONFIG = 4,
    KEST_MODULE_READ_MODE = 5,
    KEST_MODULE_SEEPROM_READ = 6,
    KEST_MODULE_SEEPROM_WRITE = 7,
    KEST_MODULE_DETECT = 8,
    KEST_MODULE_FFDC_EXTRACT = 9,
    KEST_MODULE_FFDC_UNLOCK = 10,
    KEST_MODULE_OPEN = 11,
    KEST_MODULE_CONFIG = 12,
    KEST_MODULE_READ = 13,
    KEST_MODULE_SEEK = 14,
    KEST_MODULE_HARDWARE_READ = 15,
    KEST_MODULE_FFDC = 16,
    KEST_MODULE_HARDWARE_WRITE = 17,
    KEST_MODULE_RESET_LINE_STEP = 17,
    KEST_MODULE_WRITE = 18,
    KEST_MODULE_CLOSE = 19,
    KEST_MODULE_HUB_TRANSFER = 20,
    KEST_MODULE_HUB_LOCK = 22,
    KEST_MODULE_HUB_LOCK_RELEASE = 23,
    KEST_MODULE_PORT_READ = 24,
    KEST_MODULE_PORT_WRITE = 25,
    KEST_MODULE_NO_OPERATION = 26,
    KEST_MODULE_HUB_VERDICT = 27,
    KEST_MODULE_NODE_NAME = 27,
    KEST_MODULE_HUB_BUS_RESET = 28,
    KEST_MODULE_HUB_COMMAND_STATUS = 29,
    KEST_MODULE_HUB_ERROR_STATUS = 30,
    KEST_MODULE_RESET_RETRY = 31,
    KEST_MODULE_THERMAL = 32,
    KEST_MODULE_HUB_QUERY = 33,
    KEST_MODULE_HUB_RESET_LINE = 34,
    KEST_MODULE_PORT_DIRECTIONS = 35,
    KEST_MODULE_PORT_RAW = 36,
    KEST_MODULE_PORT_HUB_RESET = 37,
    KEST_MODULE_OPERATION = 38,
    KEST_MODULE_NO_LOCK = 39,
    KEST_MODULE_DEVICE_LOCK = 40,
    KEST_MODULE_DEVICE_END = 41,
    KEST_MODULE_DEVICE_LINK = 42,
    KEST_MODULE_NO_UNLOCK = 43,
    KEST_MODULE_PROCESS_MSG = 255,
};

/// Subsections of user details: what a block is.
constexpr std::uint8_t kest_dtlsAddressList = 1; ///< a flat address list
constexpr std::uint8_t kest_dtlsSourceId = 2; ///< the unit that failed
constexpr std::uint8_t kest_dtlsRegistry = 3; ///< a registry key or value
constexpr std::uint8_t kest_dtlsDevicePath = 5; ///< the first field of a device text
constexpr std::uint8_t kest_dtlsFfdc = 6; ///< the IIC layer's first-failure data
constexpr std::uint8_t kest_dtlsDeviceText = 7; ///< what names the device

/// A number and its words.
struct kest_codeText {
    std::uint32_t code; ///< the number
    const char* text; ///< static
};

/// Words for each `kest_reason`.
inline constexpr std::array kest_reasonTexts{
    kest_codeText{KEST_REASON_NO_ATTRIBUTE, "no such attribute"},
    kest_codeText{KEST_REASON_CHAIN_INVALID, "the chain of devices is not valid"},
    kest_codeText{KEST_REASON_MODE_UNREAD, "the read mode could not be read from the registry"},
    kest_codeText{KEST_REASON_MODE_UNKNOWN, "the registry holds no known read mode"},
    kest_codeText{KEST_REASON_COPY_UNREAD, "the persisted copy could not be read"},
    kest_codeText{KEST_REASON_COPY_ABSENT, "the device has no persisted copy"},
    kest_codeText{KEST_REASON_POINTER_IN_USE, "the caller's data pointer was not null"},
    kest_codeText{KEST_REASON_COPY_UNWRITTEN, "the persisted copy could not be written"},
    kest_codeText{KEST_REASON_DETECT_STATE, "the device's detect state is unusual"},
    kest_codeText{KEST_REASON_DEVICE_ABSENT, "the device is absent"},
    kest_codeText{KEST_REASON_OPEN_GONE, "open: bus or node gone"},
    kest_codeText{KEST_REASON_OPEN, "open failed"},
    kest_codeText{KEST_REASON_DEADLOCK, "a lock that is held already"},
    kest_codeText{KEST_REASON_CONFIG, "configuration failed"},
    kest_codeText{KEST_REASON_FFDC_UNLOCK, "first-failure data could not be released"},
    kest_codeText{KEST_REASON_FFDC_EXTRACT, "first-failure data could not be collected"},
    kest_codeText{KEST_REASON_NO_ANSWER, "nothing answers, or no such bus"},
    kest_codeText{KEST_REASON_READ, "read failed or fell short"},
    kest_codeText{KEST_REASON_SEEK, "seek failed"},
    kest_codeText{KEST_REASON_WRITE, "write failed or fell short"},
    kest_codeText{KEST_REASON_TEXT_MALFORMED, "the device text was not understood"},
    kest_codeText{KEST_REASON_CLOSE_DEADLOCK, "close met a lock that is held already"},
    kest_codeText{KEST_REASON_CLOSE, "close failed"},
    kest_codeText{KEST_REASON_NO_NODE, "no such node"},
    kest_codeText{KEST_REASON_HUB_COMMAND, "hub: malformed command"},
    kest_codeText{KEST_REASON_HUB_NO_ANSWER, "hub: the device behind it did not answer"},
    kest_codeText{KEST_REASON_HUB_REPEAT, "hub: the sub-bus failed again after its reset"},
    kest_codeText{KEST_REASON_HUB_PORT, "hub: no such port"},
    kest_codeText{KEST_REASON_HUB_LENGTH, "hub: transfer too long"},
    kest_codeText{KEST_REASON_HUB_HARDWARE, "hub: hardware fault"},
    kest_codeText{KEST_REASON_HUB_STATUS, "hub: unknown status"},
    kest_codeText{KEST_REASON_HUB_BUS_RESET, "hub: the sub-bus reset did not end well"},
    kest_codeText{KEST_REASON_MESSAGE_TYPE, "message: unknown type"},
    kest_codeText{KEST_REASON_MESSAGE_HEAD, "message: shorter than its head"},
    kest_codeText{KEST_REASON_MESSAGE_TEXT, "message: shorter than its text"},
    kest_codeText{KEST_REASON_MESSAGE_DATA, "message: shorter than its data"},
    kest_codeText{KEST_REASON_NO_LOCATION, "message: no text for this device number"},
    kest_codeText{KEST_REASON_BUS_RESET, "the bus could not be reset after a time-out"},
    kest_codeText{KEST_REASON_SENSOR, "the thermal sensor could not be read"},
    kest_codeText{KEST_REASON_HUB_QUERY, "the hub's status could not be read before a transfer"},
    kest_codeText{KEST_REASON_MISSING, "an argument is missing, or a buffer could not be had"},
    kest_codeText{KEST_REASON_DEVICE_TYPE, "not for this device type"},
    kest_codeText{KEST_REASON_NO_REGISTER, "the device has no such register"},
    kest_codeText{KEST_REASON_NO_OBJECT, "no device object for this type"},
    kest_codeText{KEST_REASON_LOCKED, "the device is locked"},
    kest_codeText{KEST_REASON_NO_SEEPROM, "the chain does not end in a SEEPROM"},
    kest_codeText{KEST_REASON_UNSUPPORTED, "not supported"},
};

/// Words for each `kest_module`: an exported function, or what was done.
inline constexpr std::array kest_moduleTexts{
    kest_codeText{KEST_MODULE_SET_ATTRIBUTE, "KEST_setAttribute"},
    kest_codeText{KEST_MODULE_DP_READ, "KEST_dpRead"},
    kest_codeText{KEST_MODULE_DP_WRITE, "KEST_dpWrite"},
    kest_codeText{KEST_MODULE_DP_CONFIG, "KEST_dpConfig"},
    kest_codeText{KEST_MODULE_READ_MODE, "read mode"},
    kest_codeText{KEST_MODULE_SEEPROM_READ, "KEST_seepromRead"},
    kest_codeText{KEST_MODULE_SEEPROM_WRITE, "KEST_seepromWrite"},
    kest_codeText{KEST_MODULE_DETECT, "KEST_detectDevice"},
    kest_codeText{KEST_MODULE_FFDC_EXTRACT, "collect first-failure data"},
    kest_codeText{KEST_MODULE_FFDC_UNLOCK, "release first-failure data"},
    kest_codeText{KEST_MODULE_OPEN, "open"},
    kest_codeText{KEST_MODULE_CONFIG, "configure"},
    kest_codeText{KEST_MODULE_READ, "read"},
    kest_codeText{KEST_MODULE_SEEK, "seek"},
    kest_codeText{KEST_MODULE_HARDWARE_READ, "SEEPROM hardware read"},
    kest_codeText{KEST_MODULE_FFDC, "first-failure data"},
    kest_codeText{KEST_MODULE_HARDWARE_WRITE, "SEEPROM hardware write, or a hub's reset line"},
    kest_codeText{KEST_MODULE_WRITE, "write"},
    kest_codeText{KEST_MODULE_CLOSE, "close"},
    kest_codeText{KEST_MODULE_HUB_TRANSFER, "transfer through a hub"},
    kest_codeText{KEST_MODULE_HUB_LOCK, "hub lock"},
    kest_codeText{KEST_MODULE_HUB_LOCK_RELEASE, "hub lock release"},
    kest_codeText{KEST_MODULE_PORT_READ, "955x read"},
    kest_codeText{KEST_MODULE_PORT_WRITE, "955x write"},
    kest_codeText{KEST_MODULE_NO_OPERATION, "device object"},
    kest_codeText{KEST_MODULE_HUB_VERDICT, "node name, or the hub's verdict"},
    kest_codeText{KEST_MODULE_HUB_BUS_RESET, "hub sub-bus reset"},
    kest_codeText{KEST_MODULE_HUB_COMMAND_STATUS, "hub command status"},
    kest_codeText{KEST_MODULE_HUB_ERROR_STATUS, "hub error status"},
    kest_codeText{KEST_MODULE_RESET_RETRY, "reset and retry"},
    kest_codeText{KEST_MODULE_THERMAL, "thermal sensor"},
    kest_codeText{KEST_MODULE_HUB_QUERY, "hub status before a transfer"},
    kest_codeText{KEST_MODULE_HUB_RESET_LINE, "hub reset line"},
    kest_codeText{KEST_MODULE_PORT_DIRECTIONS, "955x pin directions"},
    kest_codeText{KEST_MODULE_PORT_RAW, "955x raw register"},
    kest_codeText{KEST_MODULE_PORT_HUB_RESET, "955x hub reset line"},
    kest_codeText{KEST_MODULE_OPERATION, "device object"},
    kest_codeText{KEST_MODULE_NO_LOCK, "device object"},
    kest_codeText{KEST_MODULE_DEVICE_LOCK, "device lock"},
    kest_codeText{KEST_MODULE_DEVICE_END, "device object"},
    kest_codeText{KEST_MODULE_DEVICE_LINK, "device objects of a chain"},
    kest_codeText{KEST_MODULE_NO_UNLOCK, "device object"},
    kest_codeText{KEST_MODULE_PROCESS_MSG, "kestProcessMsg"},
};

/// Words for each subsection of user details.
inline constexpr std::array kest_detailsTexts{
    kest_codeText{kest_dtlsAddressList, "address chain"}, kest_codeText{kest_dtlsSourceId, "source unit"},
    kest_codeText{kest_dtlsRegistry, "registry"},         kest_codeText{kest_dtlsDevicePath, "device path"},
    kest_codeText{kest_dtlsFfdc, "first-failure data"},   kest_codeText{kest_dtlsDeviceText, "device text"},
};

} // namespace kest
