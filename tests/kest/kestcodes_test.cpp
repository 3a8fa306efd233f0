/// The numbers of error entries: in the document, in the texts of kestctl, and in the entries that the library makes.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "kest/kest.h"
#include "kest955x.h"
#include "kesthandlehuberrors.h"
#include "kesthubsupport.h"
#include "kestseeprom.h"
#include "tests/places.h"
#include "tests/platform/scripted.h"
#include "tools/kestctl/codes.h"

using namespace scripted;
using namespace kest;

namespace
{

using Rows = std::map<std::uint32_t, std::string>; ///< meaning by number
using Set = std::set<std::uint32_t>;

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// The cells of a line of a table; empty when the line is no row.
std::vector<std::string> cellsOf(const std::string& line)
{
    std::vector<std::string> cells;
    for (std::size_t at = 0, bar = 0; line.starts_with('|') && (bar = line.find('|', at + 1)) != std::string::npos;
         at = bar) {
        cells.push_back(trimmed(line.substr(at + 1, bar - at - 1)));
    }
    return cells;
}

std::string document(const std::string& name = "error-codes.md")
{
    std::ifstream file(std::string(test::sourceFolder) + "/docs/" + name);
    EXPECT_TRUE(file.is_open());
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A row of the operator's guide.
struct GuideRow {
    std::string meaning, blames, check;
};

/// The rows of the operator's guide, by reason.
std::map<std::uint32_t, GuideRow> guideRows()
{
    std::istringstream text(document("operators-guide.md"));
    std::map<std::uint32_t, GuideRow> rows;
    for (std::string line; std::getline(text, line);) {
        const std::vector<std::string> cells = cellsOf(line);
        if (!cells.empty() && cells[0].starts_with("0x1")) {
            EXPECT_EQ(4U, cells.size()) << line;
            const auto reason = static_cast<std::uint32_t>(std::stoul(cells[0], nullptr, 16));
            const bool isNew = cells.size() == 4 && rows.emplace(reason, GuideRow{cells[1], cells[2], cells[3]}).second;
            EXPECT_TRUE(isNew) << line;
        }
    }
    return rows;
}

/// The guide's word for the subsystems of a reason.
std::string blameWord(const Set& subsystems)
{
    if (subsystems.size() > 1) {
        return "both";
    }
    return subsystems == Set{0x55} ? "device" : "software";
}

/// The document's rows below a heading, each with a number and a meaning. With `kind`, only rows that have it as their
/// first cell.
Rows documented(const std::string& heading, const std::string& kind = "")
{
    std::istringstream text(document());
    Rows rows;
    bool within = false;
    for (std::string line; std::getline(text, line);) {
        within = line.starts_with("## ") ? line == "## " + heading : within;
        std::vector<std::string> cells = cellsOf(line);
        if (within && !kind.empty() && !cells.empty() && cells[0] == kind) {
            cells.erase(cells.begin());
        } else if (!within || !kind.empty()) {
            continue;
        }
        if (cells.size() >= 2 && cells[0].find_first_of("0123456789") == 0) {
            const auto number = static_cast<std::uint32_t>(std::stoul(cells[0], nullptr, 0));
            EXPECT_TRUE(rows.emplace(number, cells[1]).second) << cells[0] << " is listed twice";
        }
    }
    return rows;
}

Set numbersOf(const Rows& rows)
{
    Set numbers;
    for (const auto& row : rows) {
        numbers.insert(row.first);
    }
    return numbers;
}

/// The document lists the codes of address chains in a sentence.
Set documentedChainCodes()
{
    const std::string text = document();
    Set codes;
    for (std::size_t at = text.find("0xAC"); at != std::string::npos; at = text.find("0xAC", at + 1)) {
        codes.insert(static_cast<std::uint32_t>(std::stoul(text.substr(at), nullptr, 16)));
    }
    return codes;
}

/// Each number has the same words on both sides, or on neither. The document may add more.
void expectSameWords(const Rows& rows, const std::function<const char*(std::uint32_t)>& textOf, std::uint32_t first,
                     std::uint32_t last)
{
    EXPECT_FALSE(rows.empty());
    for (std::uint32_t number = first; number <= last; ++number) {
        const std::string text = textOf(number);
        const bool has = rows.contains(number);
        const std::string sentence = has ? rows.at(number) : "";
        EXPECT_EQ(has, !text.empty()) << std::hex << number << ": \"" << sentence << "\", \"" << text << '"';
        EXPECT_TRUE(sentence.starts_with(text)) << std::hex << number << ": \"" << sentence << "\", \"" << text << '"';
        if (has && sentence.size() > text.size()) {
            EXPECT_NE(std::string::npos, std::string(" ,;:").find(sentence[text.size()])) << sentence;
        }
    }
}

TEST(ErrorCodes, KestctlHasTheDocumentsWords)
{
    expectSameWords(documented("Reason codes"), tools::reasonText, 0x1300, 0x13FF);
    const auto moduleText = [](std::uint32_t number) { return tools::moduleText(0x1300, number); };
    expectSameWords(documented("Modules"), moduleText, 0, 0xFFFF);
    const std::string items = "What an entry holds";
    expectSameWords(documented(items, "subsystem"), tools::subsystemText, 0, 0xFFFF);
    expectSameWords(documented(items, "severity"), tools::severityText, 0, 0xFFFF);
    expectSameWords(documented(items, "procedure"), tools::procedureText, 0, 0xFFFF);
    const auto subsectionText = [](std::uint32_t number) {
        return tools::subsectionText(0x1300, static_cast<std::uint8_t>(number));
    };
    expectSameWords(documented(items, "user details"), subsectionText, 0, 0xFF);
}

TEST(ErrorCodes, KestctlHasTheDocumentsWordsForServicesAndTools)
{
    expectSameWords(documented("Reason codes of the services"), tools::reasonText, 0x1400, 0x16FF);
    expectSameWords(documented("Reason codes of the tools"), tools::reasonText, 0x1700, 0x17FF);
    for (const auto& [component, name] :
         std::map<std::uint32_t, std::string>{{0x1400, "VPD service"}, {0x1500, "registry"}, {0x1600, "kestd"}}) {
        const auto moduleText = [component = component](std::uint32_t number) {
            return tools::moduleText(component, number);
        };
        expectSameWords(documented("Modules and user details of services and tools", name + " module"), moduleText, 0,
                        0xFFFF);
    }
    for (const auto& [component, name] :
         std::map<std::uint32_t, std::string>{{0x1500, "registry"}, {0x1600, "kestd"}, {0x1700, "kestctl"}}) {
        const auto subsectionText = [component = component](std::uint32_t number) {
            return tools::subsectionText(component, static_cast<std::uint8_t>(number));
        };
        expectSameWords(documented("Modules and user details of services and tools", name + " details"), subsectionText,
                        0, 0xFF);
    }
}

TEST(ErrorCodes, OperatorsGuideHasEveryReasonWithTheWordsOfKestctl)
{
    const std::map<std::uint32_t, GuideRow> rows = guideRows();
    for (std::uint32_t reason = 0x1300; reason <= 0x17FF; ++reason) {
        const auto row = rows.find(reason);
        const std::string meaning = row == rows.end() ? "" : row->second.meaning;
        EXPECT_EQ(std::string(tools::reasonText(reason)), meaning) << std::hex << reason;
    }
    for (const auto& [reason, row] : rows) {
        EXPECT_STRNE("", tools::reasonText(reason)) << std::hex << reason << " is no reason";
        EXPECT_NE("", row.check) << std::hex << reason << ": what is to be checked?";
    }
}

/// Services blame the software (newHostEntry()), kestctl the device but for the undo file that it could not save.
TEST(ErrorCodes, OperatorsGuideBlamesAsServicesAndToolsDo)
{
    for (const auto& [reason, row] : guideRows()) {
        if (reason >= 0x1400) {
            EXPECT_EQ(reason > 0x1700 && reason != 0x1702 ? "device" : "software", row.blames) << std::hex << reason;
        }
    }
}

/// Each component numbers its modules and user details from 1.
TEST(ErrorCodes, NumbersOfOneComponentHaveNoWordsOfAnothers)
{
    EXPECT_STREQ("KEST_setAttribute", tools::moduleText(0x1300, 1));
    EXPECT_STREQ("persisted copy read", tools::moduleText(0x1400, 1));
    EXPECT_STREQ("request refused", tools::moduleText(0x1600, 1));
    EXPECT_STREQ("", tools::moduleText(0x1600, 6));
    EXPECT_STREQ("", tools::moduleText(0, 1));
    EXPECT_STREQ("address chain", tools::subsectionText(0x1300, 1));
    EXPECT_STREQ("key", tools::subsectionText(0x1500, 1));
    EXPECT_STREQ("", tools::subsectionText(0x1600, 1));
    EXPECT_STREQ("", tools::subsectionText(0x1400, 7));
}

// --- what the library gives ---

constexpr char direct[] = "p,L,2C0256,A0";
constexpr char behindHub[] = "p,L,922,80,3,2C0256,A0";

/// Drives the library into its failures, and collects the numbers of all entries.
class LibrarysCodes : public PlatformTest
{
protected:
    LibrarysCodes() { kest_forgetMode(); }

    /// Notes the entries since the last reset, then resets the platform.
    void collect()
    {
        for (int number = 1; number <= platform.entryCount(); ++number) {
            collect(platform.entry(number));
        }
        // faults at every place leave first-failure data and locks
        platform.forget();
    }

    void collect(const EntryRecord& record)
    {
        severities.insert(record.severity);
        for (const Src& src : record.srcs) {
            // otherwise the platform frees it
            if (src.component == 0x1300) {
                reasons.insert(src.reason);
                blames[src.reason].insert(src.subsystem);
                modules.insert(src.module);
                subsystems.insert(src.subsystem);
                if (src.reason == 0x1302) {
                    chainCodes.insert(src.word1);
                }
            }
        }
        for (const SoftwareError& error : record.softwareErrors) {
            modules.insert(error.word1);
        }
        for (const Callout& callout : record.callouts) {
            procedures.insert(callout.id);
        }
        for (const UserDetails& details : record.userDetails) {
            subsections.insert(details.subsection);
        }
    }

    /// Runs it once with the script that the test has made.
    void once(const std::function<ErrlEntry*()>& act)
    {
        const std::unique_ptr<ErrlEntry> entry{act()};
        collect();
    }

    /// A hub or device whose one-byte reads return the statuses in turn, then 0.
    void hubAnswers(std::vector<std::uint8_t> statuses)
    {
        platform.healthy();
        platform.readHandler = [statuses, next = std::size_t{0}](std::uint8_t* bytes, unsigned size) mutable {
            std::memset(bytes, 0, size);
            bytes[0] = size == 1 && next < statuses.size() ? statuses[next++] : std::uint8_t{0};
            return static_cast<int>(size);
        };
    }

    /// Fails each layer call in turn, once alone and once with all later ones.
    void failingEverywhere(const std::function<ErrlEntry*()>& act, const std::vector<std::uint8_t>& statuses = {})
    {
        const StandardError dmaLines;
        for (const int error : {EIO, ENXIO, ENODEV, ENOENT, EDEADLK, ETIME, ENODATA, EINVAL}) {
            for (const bool persistent : {false, true}) {
                bool met = true;
                for (int failing = 1; met; ++failing) {
                    hubAnswers(statuses);
                    platform.failCall(failing, error, persistent);
                    const std::unique_ptr<ErrlEntry> entry{act()};
                    met = platform.faultWasMet();
                    collect();
                }
            }
        }
    }

    static ErrlEntry* read(const char* location, std::uint32_t mode = 4, std::uint32_t number = 1)
    {
        const kest_attributeValue attributes[6] = {400, 1, 15, mode, 2, 1};
        tavo_deviceaddress address{.number = number, .location = {}};
        std::strncpy(address.location, location, sizeof address.location - 1);
        unsigned int length = 4;
        unsigned char* data = nullptr;
        ErrlEntry* const entry = KEST_seepromRead(address, nullptr, 0, &length, &data, attributes);
        void* buffer = data;
        tavo_util_free(&buffer);
        return entry;
    }

    static ErrlEntry* write(const char* location, std::uint32_t mode = 4)
    {
        const kest_attributeValue attributes[6] = {400, 1, 15, mode, 2, 1};
        tavo_deviceaddress address{.number = 1, .location = {}};
        std::strncpy(address.location, location, sizeof address.location - 1);
        unsigned int length = 4;
        const unsigned char bytes[] = {1, 2, 3, 4};
        return KEST_seepromWrite(address, nullptr, 0, &length, bytes, attributes);
    }

    static ErrlEntry* serve(std::uint16_t type, const Bytes& payload)
    {
        Message request{"request", 1, type, payload};
        Message reply{"reply"};
        return kestProcessMsg(nullptr, &request, &reply);
    }

    void seeproms();
    void hubs();
    void ports();
    void devices();
    void messages();
    void others();

    Set reasons, modules, subsystems, severities, procedures, subsections, chainCodes;
    std::map<std::uint32_t, Set> blames; ///< subsystems by reason
};

void LibrarysCodes::seeproms()
{
    for (const char* location : {"nonsense", "p,L,9551,C0", "p,L,922,80,3", "p,L,2C0256,A0,2C0256,A0",
                                 "p,L,2C0256,A0,922,80,3", "p,L,922,80,3,922,80,3,75,90", "p,L,75,1,75,1,75,1,75,1"}) {
        once([=] { return read(location); });
        once([=] { return write(location); });
    }
    for (const bool writes : {false, true}) {
        const auto act = [=](std::uint32_t mode) { return writes ? write(direct, mode) : read(direct, mode); };
        platform.failsCopyRead();
        // file mode
        once([=] { return act(3); });
        platform.readsCopy({});
        once([=] { return act(3); });
        failingEverywhere([=] { return act(4); });
    }
    platform.readsCopy({1}).failsCopyWrite();
    once([] { return write(direct, 3); });
    platform.failsRegistry().healthy();
    once([] { return read(direct, 2); });
    platform.registryAnswers(text("Strange")).healthy();
    once([] { return read(direct, 2); });
    platform.healthy().configures(3).failsRead(EIO).capturesFfdc(hex("7b 7d")).configuresReading(word(1));
    once([] { return read(direct); });
    unsigned char used = 0;
    unsigned char* data = &used;
    unsigned int size = 1;
    once([&] { return KEST_seepromRead({}, nullptr, 0, &size, &data, nullptr); });
    once([&] { return KEST_seepromWrite({}, nullptr, 0, nullptr, &used, nullptr); });
}

void LibrarysCodes::hubs()
{
    for (unsigned status = 0; status < 256; ++status) {
        // after a sub-bus error: its reset, the repeat
        hubAnswers({0, static_cast<std::uint8_t>(status), 0, 1});
        once([] { return read(behindHub); });
        // the reset itself ends with a status
        hubAnswers({0, static_cast<std::uint8_t>(status), 5});
        once([] { return write(behindHub); });
    }
    failingEverywhere([] { return read(behindHub); }, {0, 4});
    // no expander resets that hub
    failingEverywhere([] { return write("p,L,922,84,3,1C0002,A0"); });
    failingEverywhere([this] {
        ErrlEntry* entry = nullptr;
        unsigned int status = 0;
        kest_read922HubErrStatus(platform.openHandle(), &status, entry);
        return entry;
    });
}

void LibrarysCodes::ports()
{
    unsigned int value = 0;
    for (const char* address : {"nonsense", "p,L,922,80,3", "p,L,9551,C0"}) {
        failingEverywhere([&] { return KEST_dpRead(address, 0xFF, &value, nullptr, 0); });
        failingEverywhere([&] { return KEST_dpWrite(address, KEST_DP_SELECT_00, 1, 0, nullptr, 0); });
        failingEverywhere([&] { return KEST_dpConfig(address, KEST_DP_CONFIG_DUTY0, 1, nullptr); });
    }
    failingEverywhere([] { return KEST_dpConfig("p,L,9555,C0", KEST_DP_CONFIG_INPUT, 1, nullptr); });
    platform.healthy();
    once([] { return KEST_dpConfig("p,L,9551,C0", KEST_DP_CONFIG_POLARITY0, 1, nullptr); });
    char path[] = "p", node[] = "L";
    kest_deviceAddress link{0xC0, KEST_DEV_D10, 0, nullptr};
    kest_deviceInfo info{node, path, &link};
    const kest_attributeValue attributes[6] = {400, 1, 15, 1, 2, 1};
    const Dp955xRequest request{&info, KEST_DEV_D10, attributes};
    platform.healthy();
    // no such outputs
    once([&] { return Write(&request, KEST_DP_SELECT_00, 1, 0); });
}

void LibrarysCodes::devices()
{
    EdalDevice base{0xC0};
    once([&] { return base.doOperation(platform.openHandle()); });
    once([&] { return base.lockDevice(platform.openHandle()); });
    once([&] { return base.unlockDevice(platform.openHandle()); });
    GenericEdalDevice device{0xC0};
    once([&] { return device.doOperation(platform.openHandle()); });
    platform.healthy();
    delete device.lockDevice(platform.openHandle());
    once([&] { return device.lockDevice(platform.openHandle()); });
    platform.healthy();
    delete device.unlockDevice(platform.openHandle());
    {
        GenericEdalDevice locked{0xC0};
        delete locked.lockDevice(platform.openHandle());
    }
    collect();
    const kest_deviceAddress seeprom{0xA0, KEST_DEV_SEEPROM_2K, 0, nullptr};
    EdalDevice *made = nullptr, *second = nullptr;
    buildDeviceLink(&seeprom, &made, &second);
    collect();
}

void LibrarysCodes::messages()
{
    once([] { return serve(0x8000, {}); });
    once([] { return serve(0x8003, {}); });
    once([] { return serve(0x8001, {}); });
    once([] { return serve(0x8001, Bytes(13, 'x')); });
    Bytes shortWrite(13);
    // the length, in either byte order
    shortWrite[8] = shortWrite[11] = 1;
    once([=] { return serve(0x8002, shortWrite); });
    platform.failsLocation();
    once([] { return serve(0x8004, Bytes(8)); });
}

void LibrarysCodes::others()
{
    for (const std::uint32_t state : {0U, 1U, 2U, 4U}) {
        platform.opens().configures(2).configuresReading(word(state)).closes();
        once([] { return KEST_detectDevice(direct, nullptr); });
    }
    once([] { return KEST_detectDevice(nullptr, nullptr); });
    failingEverywhere([] { return KEST_detectDevice(direct, nullptr); });
    once([] { return KEST_thermal_sensor_read_temperature_data(nullptr); });
    failingEverywhere([] {
        KEST_thermal_sensor_info info{"p,L,75,90", 0, 0};
        return KEST_thermal_sensor_read_temperature_data(&info);
    });
    once([] { return KEST_setAttribute(KEST_ATTR_BUS_SPEED, 0, nullptr); });
    kest_attributeValue record[6];
    once([&] { return KEST_setAttribute(static_cast<kest_attribute>(6), 0, record); });
    // no such node
    once([] { return KEST_detectDevice("p,8", nullptr); });
    once([] {
        ErrlEntry* entry = nullptr;
        mern_t handle{};
        kest_wobuOpen(handle, entry, nullptr, "L");
        return entry;
    });
    chainCodes.insert(kest_checkAddressList(nullptr));
    kest_deviceAddress unknown{0xA0, static_cast<kest_deviceType>(1), 0, nullptr};
    chainCodes.insert(kest_checkAddressList(&unknown));
}

TEST_F(LibrarysCodes, AreThoseOfTheDocument)
{
    seeproms();
    hubs();
    ports();
    devices();
    messages();
    others();
    EXPECT_EQ(numbersOf(documented("Reason codes")), reasons);
    for (const auto& [reason, row] : guideRows()) {
        EXPECT_TRUE(reason >= 0x1400 || blameWord(blames[reason]) == row.blames) << std::hex << reason;
    }
    EXPECT_EQ(numbersOf(documented("Modules")), modules);
    EXPECT_EQ(numbersOf(documented("What an entry holds", "subsystem")), subsystems);
    EXPECT_EQ(numbersOf(documented("What an entry holds", "severity")), severities);
    EXPECT_EQ(numbersOf(documented("What an entry holds", "procedure")), procedures);
    EXPECT_EQ(numbersOf(documented("What an entry holds", "user details")), subsections);
    EXPECT_EQ(documentedChainCodes(), chainCodes);
}

} // namespace
