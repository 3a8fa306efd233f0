/// Every kind of fault at every transaction of every operation: its errno, the images, and the handle afterwards.
#include <algorithm>
#include <functional>

#include "tests/system/iic_machine.h"

namespace kest::test
{
namespace
{

/// What an operation does with an open device, and what must be true once it has succeeded.
struct Operation {
    const char* name;
    std::function<void(OpenDevice&)> prepare; ///< block and position
    std::function<Answer(OpenDevice&, Bytes&)> run;
    Bytes data; ///< to write, or what a read must deliver
    const char* image; ///< the image that it writes; empty: none
    std::size_t offset;
    std::size_t page;
    int least; ///< the least number of transactions that a fault can strike
    std::uint64_t written; ///< bytes of its longest message
    std::uint64_t read; ///< bytes that a read can fail at

    [[nodiscard]] bool writes() const { return *image != '\0'; }
    [[nodiscard]] bool reads() const { return std::string(name).ends_with("read"); }
};

/// What a fault of the bus does to an operation.
struct FaultRow {
    const char* kind;
    bool lasts;
    std::vector<std::uint64_t> bytes; ///< at which it strikes
    int first; ///< errno when it strikes in the first transaction; 0: the layer recovers
    int later; ///< when it strikes after a page has been sent
    [[nodiscard]] bool silence() const { return first == ENXIO; }
    /// Whether the fault can strike at all: at an address, or at a byte that a transaction of the operation has.
    [[nodiscard]] bool strikes(const Operation& what, std::uint64_t byte) const
    {
        const std::string name = kind;
        const bool hub = std::string(what.name).find("hub") != std::string::npos;
        const bool atBytes = name == "nack-data" || name == "short" || byte != 0;
        const std::uint64_t bytesOf = name == "nack-data" ? what.written : std::max(what.written, what.read);
        return (name != "hub-silent" || hub) && (!atBytes || byte < bytesOf);
    }
};
const FaultRow faultRows[] = {
    {"nack", false, {0}, 0, 0},
    {"nack", true, {0}, ENXIO, ETIME},
    {"nack-data", false, {0, 1, 20}, EIO, EIO},
    {"nack-data", true, {0}, EIO, EIO},
    {"hold-sda", false, {0, 1, 20}, ETIME, ETIME},
    {"hold-sda", true, {0}, ETIME, ETIME},
    {"hold-scl", false, {0, 1, 20}, ETIME, ETIME},
    {"hold-scl", true, {0}, ETIME, ETIME},
    {"short", false, {0, 1, 20}, EIO, EIO},
    {"short", true, {0}, EIO, EIO},
    {"arbitration", false, {0, 1, 20}, 0, 0},
    {"arbitration", true, {0}, EIO, EIO},
    {"gone", false, {0}, ENODEV, ENODEV},
    {"gone", true, {0}, ENODEV, ENODEV},
    {"hub-silent", false, {0}, 0, 0},
    {"hub-silent", true, {0}, ENXIO, ETIME},
};

class IicFaults : public IicMachine
{
protected:
    // short write cycles: few probes between two pages
    IicFaults() : IicMachine(0.15) {}

    // of a long read through a hub, with its status
    static constexpr std::size_t firstPiece = 8192;

    static Answer readInto(OpenDevice& device, Bytes& data) { return device.read(data); }
    static Answer writeFrom(OpenDevice& device, Bytes& data) { return device.write(data); }
    static void use(OpenDevice& device, Block settings, long position)
    {
        // the layer soon gives up a target that never acknowledges
        settings.busyWaitMs = 4;
        ASSERT_EQ((Answer{0, 0}), device.set(settings));
        ASSERT_EQ((Answer{0, 0}), device.seek(position));
    }
    // a hub passes them on sooner, and is probed less often
    static Block inShortPages()
    {
        Block settings = hub128();
        settings.pageSize = 16;
        return settings;
    }
    /// A hub's status 0, and data.
    static Bytes behindStatus(const Bytes& data) { return with(Bytes(1 + data.size()), 1, data); }

    static std::vector<Operation> operations()
    {
        return {
            {"read", [](OpenDevice& d) { use(d, main256(), 40); }, readInto, part(pattern(32768, 1), 40, 300), "", 40,
             0, 1, 2, 300},
            {"write", [](OpenDevice& d) { use(d, main256(), 40); }, writeFrom, pattern(140, 9), "main.bin", 40, 64, 12,
             66, 0},
            {"write of one page", [](OpenDevice& d) { use(d, small02(), 8); }, writeFrom, pattern(8, 9), "small.bin", 8,
             8, 5, 9, 0},
            {"plain read", [](OpenDevice& d) { use(d, {.address = 0x90}, 0); }, readInto, Bytes{0x19}, "", 0, 0, 1, 0,
             1},
            {"plain write", [](OpenDevice& d) { use(d, {.address = 0xC0, .writeCycleMs = 0}, 0); }, writeFrom,
             Bytes{2, 0x44}, "", 0, 0, 1, 2, 0},
            {"hub read", [](OpenDevice& d) { use(d, hub128(), onRiser + 8); }, readInto,
             behindStatus(part(pattern(16384, 5), 8, 9000)), "", 8, 0, 2, 4, 1},
            {"short hub read", [](OpenDevice& d) { use(d, hub02(), onCard + 8); }, readInto,
             behindStatus(part(pattern(256, 6), 8, 100)), "", 8, 0, 1, 3, 1},
            {"hub write", [](OpenDevice& d) { use(d, inShortPages(), onRiser + 10); }, writeFrom, pattern(30, 9),
             "riser.bin", 10, 16, 30, 20, 0},
            {"hub write, short offset", [](OpenDevice& d) { use(d, hub02(), onCard + 4); }, writeFrom, pattern(20, 9),
             "card.bin", 4, 8, 25, 11, 0},
        };
    }

    /// The image holds what was acknowledged: the pages that count as moved. A page whose write cycle is not known to
    /// have ended does not count, although it is stored: the page after which the device fell silent, and the last page
    /// when the probe after it failed.
    void imageHoldsWhatWasAcknowledged(const Operation& what, const Bytes& before, const Answer& result,
                                       bool fellSilent) const
    {
        const auto moved = static_cast<std::size_t>(result.result);
        const std::size_t all = what.data.size();
        const std::size_t room = what.page - (what.offset + moved) % what.page;
        // the last page's bytes
        const std::size_t last = (what.offset + all - 1) % what.page + 1;
        const Bytes now = image(what.image);
        const bool whole = now == with(before, what.offset, what.data);
        EXPECT_TRUE(moved == 0 || moved == all || (what.offset + moved) % what.page == 0) << moved;
        if (fellSilent) {
            EXPECT_EQ(with(before, what.offset, part(what.data, 0, std::min(all, moved + room))), now);
        } else if (whole) {
            EXPECT_EQ(result.error == 0 ? all : all - last, moved);
        } else {
            EXPECT_EQ(with(before, what.offset, part(what.data, 0, moved)), now);
        }
    }

    /// The bytes that a read delivers when the fault ends it.
    static std::size_t deliveredBytes(const Operation& what, std::uint64_t nth, std::uint64_t byte)
    {
        const bool direct = std::string(what.name) == "read";
        // 0 and 1 are bytes of the offset
        return direct ? (byte == 20 ? 20 : 0) : nth > 1 ? firstPiece : 0;
    }

    /// One run with the fault at its `nth` transaction. @return whether the fault struck
    bool runWith(const Operation& what, const FaultRow& row, std::uint64_t nth, std::uint64_t byte)
    {
        const Bytes before = what.writes() ? image(what.image) : Bytes{};
        OpenDevice device("sim:planar");
        what.prepare(device);
        machine->addFault({.kind = row.kind, .bus = "planar", .nth = nth, .count = row.lasts ? 0U : 1U, .byte = byte});
        Bytes data = what.reads() ? Bytes(what.data.size(), 0x5A) : what.data;
        const Answer result = what.run(device, data);
        const bool struck = machine->faults().front().struck != 0;
        // only after a write may a chip be busy, and silent
        const bool begun = what.writes() && nth > 1;
        const int error = !struck ? 0 : begun ? row.later : row.first;
        EXPECT_EQ(error, result.error);
        EXPECT_EQ(error == 0, result.result == static_cast<int>(what.data.size()));
        EXPECT_LE(0, result.result);
        EXPECT_EQ(error != 0, !device.firstFailure().empty());
        EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));
        machine->clearFaults();
        if (what.writes()) {
            imageHoldsWhatWasAcknowledged(what, before, result, begun && struck && row.silence());
        } else {
            const std::size_t moved = error == 0 ? what.data.size() : deliveredBytes(what, nth, byte);
            EXPECT_EQ(static_cast<int>(moved), result.result);
            EXPECT_EQ(part(what.data, 0, moved), part(data, 0, moved));
        }
        // the handle is still usable: the same call again does the same at the same position
        if (error != 0) {
            EXPECT_EQ((Answer{0, 0}), device.reset());
            settle();
            EXPECT_EQ((Answer{static_cast<int>(data.size()), 0}), what.run(device, data));
            EXPECT_EQ(what.data, data);
        }
        if (what.writes()) {
            EXPECT_EQ(with(before, what.offset, what.data), image(what.image));
            fill(what.image, before);
        }
        settle();
        return struck;
    }

    /// A page of a write. A chip with pages of 64 bytes stores it from its start, and wraps to the beginning of the
    /// page.
    struct SentPage {
        std::size_t start;
        Bytes data;
    };
    static std::vector<SentPage> pagesOf(std::size_t offset, const Bytes& data, std::size_t page)
    {
        std::vector<SentPage> pages;
        for (std::size_t done = 0; done < data.size(); done += pages.back().data.size()) {
            const std::size_t room = std::min(page - (offset + done) % page, data.size() - done);
            pages.push_back({offset + done, part(data, done, room)});
        }
        return pages;
    }
    static Bytes stored(Bytes cells, const std::vector<SentPage>& pages)
    {
        for (const SentPage& page : pages) {
            for (std::size_t at = 0; at < page.data.size(); ++at) {
                cells.at((page.start & ~std::size_t{63}) | ((page.start + at) & 63)) = page.data[at];
            }
        }
        return cells;
    }
    void resetSubBuses(OpenDevice& device, const Block& afterwards) const
    {
        device.set({.address = 0x80});
        EXPECT_EQ((Answer{2, 0}), device.write({0x20, 0x06}));
        EXPECT_EQ((Bytes{0}), device.readAll(1));
        device.set(afterwards);
    }
    /// The next fault changes the lowest bit of a byte. Neither chip nor layer can detect this.
    void corruptOnce(const char* way, std::uint64_t nth, std::uint64_t byte)
    {
        machine->clearFaults();
        machine->addFault(
            {.kind = "corrupt", .bus = "planar", .way = way, .nth = nth, .count = 1, .value = 1, .byte = byte});
    }
    [[nodiscard]] std::uint64_t struck() { return machine->faults().front().struck; }
};

TEST_F(IicFaults, EachKindAtEachTransactionOfEachOperation)
{

    for (const Operation& what : operations()) {
        for (const FaultRow& row : faultRows) {
            for (const std::uint64_t byte : row.bytes) {
                const std::string name = std::string(what.name) + ", " + row.kind + (row.lasts ? " for good" : " once");
                int met = 0;
                bool struck = true;
                for (std::uint64_t nth = 1; struck; ++nth) {
                    SCOPED_TRACE(name + " at transaction " + std::to_string(nth) + ", byte " + std::to_string(byte));
                    struck = runWith(what, row, nth, byte);
                    met += struck ? 1 : 0;
                    ASSERT_GT(1000U, nth);
                    if (HasFailure()) {
                        return;
                    }
                }
                EXPECT_EQ(row.strikes(what, byte), met != 0) << name << " at byte " << byte;
                if (std::string(row.kind) == "hold-sda" && byte == 0) {
                    EXPECT_LE(what.least, met) << name;
                }
            }
        }
    }
}

TEST_F(IicFaults, CorruptedByteOfAReadIsNotSeen)
{
    const Bytes all = pattern(32768, 1);
    struct {
        const char* way;
        std::uint64_t byte;
        std::size_t from; ///< of the chip's cells
        std::size_t changed;
    } const cases[] = {{"write", 0, 40 + 256, 300},
                       {"write", 1, 41, 300},
                       {"read", 0, 40, 0},
                       {"read", 20, 40, 20},
                       {"read", 299, 40, 299}};
    for (const auto& each : cases) {
        OpenDevice device("sim:planar");
        Bytes expected = part(all, each.from, 300);
        use(device, main256(), 40);
        if (each.changed < 300) {
            expected[each.changed] ^= 1;
        }
        corruptOnce(each.way, 1, each.byte);
        EXPECT_EQ(expected, device.readAll(300)) << each.way << each.byte;
        EXPECT_EQ(1U, struck());
        EXPECT_EQ("", device.firstFailure());
        // it moved the position like any other read
        EXPECT_EQ(part(all, 340, 10), device.readAll(10));
    }
    OpenDevice plain("sim:planar@90");
    corruptOnce("read", 1, 0);
    // 25 degrees with one bit changed
    EXPECT_EQ((Bytes{0x18}), plain.readAll(1));
    EXPECT_EQ((Bytes{0x19}), plain.readAll(1));
}

TEST_F(IicFaults, CorruptedByteOfAHubReadIsSeenOnlyWhereItMakesAStatus)
{
    const Bytes all = pattern(16384, 5);
    struct {
        const char* way;
        std::uint64_t byte;
        std::uint8_t status; ///< 0: none
        std::size_t from[2]; ///< of each piece
    } const cases[] = {{"write", 0, 2, {}}, // no device at that port
                       {"write", 1, 1, {}}, // an odd address
                       {"write", 2, 0, {8 + 256, 8199 + 256}},
                       {"write", 3, 0, {9, 8198}},
                       {"read", 0, 1, {}}};
    for (const auto& each : cases) {
        for (std::uint64_t nth = 1; nth <= 2; ++nth) {
            SCOPED_TRACE(std::string(each.way) + " byte " + std::to_string(each.byte) + " of piece " +
                         std::to_string(nth));
            OpenDevice device("sim:planar");
            Bytes data(9001, 0x5A);
            use(device, hub128(), onRiser + 8);
            corruptOnce(each.way, nth, each.byte);
            const Answer result = device.read(data);
            EXPECT_EQ(1U, struck());
            if (each.status == 0) {
                EXPECT_EQ((Answer{9001, 0}), result);
                EXPECT_EQ(part(all, nth == 1 ? each.from[0] : 8, 8191), part(data, 1, 8191));
                EXPECT_EQ(part(all, nth == 2 ? each.from[1] : 8199, 809), part(data, 8192, 809));
            } else {
                EXPECT_EQ((Answer{nth == 1 ? 0 : 8192, ENODATA}), result);
                EXPECT_EQ(nth == 1 ? each.status : 0, data[0]);
                device.set({.address = 0x80});
                EXPECT_EQ((Bytes{each.way[0] == 'w' ? each.status : std::uint8_t{0}}), device.readAll(1));
                use(device, hub128(), onRiser + 8);
                EXPECT_EQ(part(all, 8, 9000), part(device.readAll(9001), 1, 9000));
            }
            EXPECT_EQ(0, mern_iic_ffdc_unlock(device.handle(), 0));
        }
    }
    OpenDevice device("sim:planar");
    use(device, hub128(), onRiser + 8);
    // after a status of 0 a read through a hub is safe
    corruptOnce("read", 1, 20);
    EXPECT_EQ(part(all, 8, 9000), part(device.readAll(9001), 1, 9000));
    EXPECT_EQ(0U, struck());
}

TEST_F(IicFaults, CorruptedByteOfEachPageOfAWriteIsNotSeenAndTheImageHoldsWhatWasAcknowledged)
{
    struct {
        bool hub;
        std::uint64_t byte;
        std::uint8_t status; ///< status that the hub keeps; it then passes nothing on
        std::size_t away; ///< XOR mask of the page's start
        std::size_t changed; ///< byte of the page's data; npos none
    } const cases[] = {{false, 0, 0, 256, SIZE_MAX}, {false, 1, 0, 1, SIZE_MAX},
                       {false, 2, 0, 0, 0},          {false, 20, 0, 0, 18},
                       {true, 0, 2, 0, SIZE_MAX},    {true, 1, 1, 0, SIZE_MAX},
                       {true, 2, 0, 256, SIZE_MAX},  {true, 3, 0, 1, SIZE_MAX},
                       {true, 4, 0, 0, 0},           {true, 9, 0, 0, 5}};
    for (const auto& each : cases) {
        const char* const name = each.hub ? "riser.bin" : "main.bin";
        const Bytes before = image(name);
        const Bytes data = pattern(each.hub ? 30 : 140, 9);
        const auto pages = each.hub ? pagesOf(10, data, 16) : pagesOf(40, data, 64);
        ASSERT_EQ(3U, pages.size());
        // the image when the first, second, third page is struck
        std::vector<Bytes> outcomes;
        for (std::size_t page = 0; page < pages.size(); ++page) {
            std::vector<SentPage> sent = pages;
            sent[page].start ^= each.away;
            if (each.changed != SIZE_MAX) {
                sent[page].data.at(each.changed) ^= 1;
            }
            sent.resize(each.status == 0 ? sent.size() : page);
            outcomes.push_back(stored(before, sent));
        }
        std::size_t page = 0;
        bool going = true;
        for (std::uint64_t nth = 1; going; ++nth) {
            SCOPED_TRACE(std::string(name) + " byte " + std::to_string(each.byte) + " at transaction " +
                         std::to_string(nth));
            OpenDevice device("sim:planar");
            use(device, each.hub ? inShortPages() : main256(), each.hub ? onRiser + 10 : 40);
            corruptOnce("write", nth, each.byte);
            EXPECT_EQ((Answer{static_cast<int>(data.size()), 0}), device.write(data));
            EXPECT_EQ("", device.firstFailure());
            going = struck() != 0;
            const Bytes now = image(name);
            while (going && page + 1 < pages.size() && now != outcomes[page]) {
                // the probes after a page have no byte to change, so the fault strikes the next page
                ++page;
            }
            EXPECT_EQ(going ? outcomes[page] : stored(before, pages), now);
            if (each.hub) {
                device.set({.address = 0x80});
                EXPECT_EQ((Bytes{going ? each.status : std::uint8_t{0}}), device.readAll(1));
            }
            fill(name, before);
            if (HasFailure()) {
                return;
            }
        }
        EXPECT_EQ(2U, page) << name << " byte " << each.byte << ": not every page was struck";
    }
}

TEST_F(IicFaults, CorruptedByteOfAPlainWriteGoesWhereItSays)
{
    OpenDevice device("sim:planar@C0");
    const auto registerOf = [&device](std::uint8_t number) {
        EXPECT_EQ((Answer{1, 0}), device.write({number}));
        return device.readAll(1);
    };
    const Bytes prescaler = registerOf(2);
    corruptOnce("write", 1, 0);
    EXPECT_EQ((Answer{2, 0}), device.write({2, 0x44}));
    EXPECT_EQ((Bytes{0x44}), registerOf(3));
    EXPECT_EQ(prescaler, registerOf(2));
    corruptOnce("write", 1, 1);
    EXPECT_EQ((Answer{2, 0}), device.write({2, 0x44}));
    EXPECT_EQ((Bytes{0x45}), registerOf(2));
}

TEST_F(IicFaults, EachKindAtEachTransactionOfADetection)
{
    struct {
        const char* kind;
        bool lasts;
        std::uint32_t state;
        bool ofHub, ofOthers; ///< whether it strikes at all
    } const rows[] = {{"nack", false, 3, true, true},
                      {"nack", true, 0, true, true},
                      {"hold-sda", false, 2, true, true},
                      {"hold-sda", true, 2, true, true},
                      {"hold-scl", false, 1, true, true},
                      {"hold-scl", true, 1, true, true},
                      {"arbitration", false, 3, true, true},
                      {"arbitration", true, 4, true, true},
                      {"gone", false, 4, true, true},
                      {"gone", true, 4, true, true},
                      {"hub-silent", false, 3, true, false},
                      {"hub-silent", true, 0, true, false},
                      {"nack-data", true, 3, false, false},
                      {"short", true, 3, false, false},
                      {"corrupt", true, 3, false, false},
                      {"hub-status", true, 3, false, false},
                      {"hub-hold-sda", true, 3, false, false},
                      {"hub-hold-scl", true, 3, false, false},
                      {"hub-bad-first-byte", true, 3, false, false}};
    // from another process: the device is busy afterwards
    const Bytes write[] = {{0, 0, 0x55}, {3, 0xA2, 0, 0, 0x55}};
    for (const auto& row : rows) {
        for (const bool hub : {false, true}) {
            int met = 0;
            bool strike = true;
            for (std::uint64_t nth = 1; strike; ++nth) {
                SCOPED_TRACE(std::string(row.kind) + (row.lasts ? " for good" : " once") + (hub ? ", hub" : "") +
                             " at transaction " + std::to_string(nth));
                Bytes page = write[hub ? 1 : 0];
                sim::segment whole{.address = static_cast<std::uint8_t>(hub ? 0x80 : 0xA0),
                                   .way = sim::direction::write,
                                   .bytes = page};
                OpenDevice device("sim:planar");
                use(device, hub ? hub128() : main256(), 0);
                EXPECT_EQ(sim::outcome::done, wires->transfer({&whole, 1}, 0).end);
                machine->addFault({.kind = row.kind,
                                   .bus = "planar",
                                   .nth = nth,
                                   .count = row.lasts ? 0U : 1U,
                                   .value = std::string(row.kind) == "hub-status" ? 5U : 0U});
                const std::uint32_t state = device.number(15);
                strike = struck() != 0;
                met += strike ? 1 : 0;
                EXPECT_EQ(strike ? row.state : 3U, state);
                EXPECT_EQ("", device.firstFailure());
                machine->clearFaults();
                EXPECT_EQ((Answer{0, 0}), device.reset());
                settle();
                EXPECT_EQ(3U, device.number(15));
                if (HasFailure()) {
                    return;
                }
            }
            // probes of a busy device
            EXPECT_EQ(hub ? row.ofHub : row.ofOthers, met >= 5) << row.kind << met;
        }
    }
}

TEST_F(IicFaults, ResetOfTheBusMeetsNoFaultButTheOnesThatHoldIt)
{
    for (const char* const kind :
         {"nack", "nack-data", "hold-sda", "hold-scl", "short", "arbitration", "corrupt", "stuck-write-cycle", "gone",
          "hub-status", "hub-silent", "hub-bad-first-byte", "hub-hold-sda", "hub-hold-scl"}) {
        OpenDevice device("sim:planar");
        use(device, main256(), 40);
        machine->addFault({.kind = kind, .bus = "planar", .value = 1});
        // a reset is no transaction
        EXPECT_EQ((Answer{0, 0}), device.reset()) << kind;
        EXPECT_EQ(0U, struck());
        machine->clearFaults();
        EXPECT_EQ(part(pattern(32768, 1), 40, 9), device.readAll(9));
    }
}

TEST_F(IicFaults, ResetOfTheBusAfterEachKind)
{
    struct {
        const char* kind;
        std::uint64_t count;
        std::uint32_t value; ///< resets that a held line outlasts
        std::vector<int> resets; ///< errno of each
        Answer then; ///< of the read after them
    } const rows[] = {
        {"nack", 0, 0, {0}, {0, ENXIO}},
        {"nack-data", 1, 0, {0}, {9, 0}},
        {"hold-sda", 1, 0, {0}, {9, 0}},
        {"hold-sda", 1, 2, {ETIME, ETIME, 0}, {9, 0}},
        {"hold-sda", 0, 0, {0}, {0, ETIME}}, // held again
        {"hold-scl", 1, 0, {0}, {9, 0}},
        {"hold-scl", 3, 0, {ETIME, ETIME, 0}, {9, 0}}, // attempts: the read and two resets
        {"hold-scl", 0, 0, {ETIME, ETIME, ETIME}, {0, ETIME}}, // never freed by a reset
        {"short", 1, 0, {0}, {9, 0}},
        {"arbitration", 0, 0, {0}, {0, EIO}},
        {"corrupt", 1, 1, {0}, {9, 0}},
        {"gone", 1, 0, {0}, {9, 0}},
        {"gone", 0, 0, {ENODEV, ENODEV}, {0, ENODEV}},
    };
    const Bytes expected = part(pattern(32768, 1), 40, 9);
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.kind) + " outlasts " + std::to_string(row.value));
        OpenDevice device("sim:planar");
        Bytes data(9);
        use(device, main256(), 40);
        machine->addFault({.kind = row.kind, .bus = "planar", .count = row.count, .value = row.value});
        device.read(data);
        EXPECT_NE(0U, struck());
        for (const int error : row.resets) {
            EXPECT_EQ((Answer{error == 0 ? 0 : -1, error}), device.reset());
        }
        // the corrupted byte moved the position
        device.seek(40);
        EXPECT_EQ(row.then, device.read(data));
        machine->clearFaults();
        device.reset();
        device.seek(40);
        EXPECT_EQ(expected, device.readAll(9));
    }
}

TEST_F(IicFaults, WriteCycleThatDoesNotEndAtEachPage)
{
    const Bytes before = image("main.bin");
    const Bytes data = pattern(300, 9);
    for (std::uint64_t page = 1; page <= 5; ++page) {
        OpenDevice device("sim:planar");
        device.set(main256());
        const auto fault = machine->addFault({.kind = "stuck-write-cycle", .bus = "planar", .nth = page, .count = 1});
        const int moved = static_cast<int>(64 * (page - 1));
        EXPECT_EQ((Answer{moved, ETIME}), device.write(data));
        EXPECT_EQ(with(before, 0, part(data, 0, static_cast<std::size_t>(moved))), image("main.bin"));
        machine->clearFault(fault);
        EXPECT_EQ((Answer{300, 0}), device.write(data));
        EXPECT_EQ(with(before, 0, data), image("main.bin"));
        fill("main.bin", before);
    }
}

TEST_F(IicFaults, RefusedReadAddressInTheMiddleOfARead)
{
    OpenDevice device("sim:planar");
    Bytes data(10);
    device.set(main256());
    machine->addFault({.kind = "nack", .bus = "planar", .way = "read", .count = 1});
    // it acknowledged a moment ago, so this is no write cycle
    EXPECT_EQ((Answer{0, ENXIO}), device.read(data));
    EXPECT_EQ((Answer{10, 0}), device.read(data));
}

TEST_F(IicFaults, HubFaultsAtEachPieceOfAReadAreReportedInItsFirstByte)
{
    const Bytes all = pattern(16384, 5);
    struct {
        const char* kind;
        std::uint32_t value;
        std::uint8_t status;
        bool stays; ///< until the sub-buses are reset
    } const faults[] = {{"hub-status", 5, 5, true},
                        {"hub-status", 200, 200, true},
                        {"hub-hold-sda", 0, 3, true},
                        {"hub-hold-scl", 0, 4, true},
                        {"hub-bad-first-byte", 0x33, 0x33, false}};
    for (const auto& each : faults) {
        for (std::uint64_t piece = 1; piece <= 3; ++piece) {
            SCOPED_TRACE(std::string(each.kind) + " at piece " + std::to_string(piece));
            OpenDevice device("sim:planar");
            Bytes data(1 + 16384, 0x5A);
            use(device, hub128(), onRiser);
            machine->addFault({.kind = each.kind, .bus = "planar", .nth = piece, .count = 1, .value = each.value});
            const std::size_t moved = std::size_t{8192} + (piece == 3 ? 8191 : 0);
            EXPECT_EQ((Answer{piece == 1 ? 0 : static_cast<int>(moved), ENODATA}), device.read(data));
            EXPECT_EQ(piece == 1 ? each.status : 0, data[0]);
            if (piece != 1) {
                EXPECT_EQ(part(all, 0, moved - 1), part(data, 1, moved - 1));
            }
            // no byte after it is data
            const std::size_t kept = piece == 1 ? 1 : moved;
            EXPECT_EQ(Bytes(data.size() - kept, 0x5A), part(data, kept, data.size() - kept));

            if (each.stays) {
                EXPECT_EQ((Answer{0, ENODATA}), device.read(data));
                EXPECT_EQ(each.status, data[0]);
                resetSubBuses(device, hub128());
            }
            EXPECT_EQ(part(all, 0, 16384), part(device.readAll(1 + 16384), 1, 16384));
            machine->clearFaults();
        }
    }
}

TEST_F(IicFaults, HubFaultsAtEachPageOfAWriteAreReportedAtItsEnd)
{
    const Bytes before = image("riser.bin");
    const Bytes data = pattern(640, 9);
    struct {
        const char* kind;
        std::uint32_t value;
        std::uint8_t status;
    } const faults[] = {
        {"hub-status", 6, 6}, {"hub-hold-sda", 0, 3}, {"hub-hold-scl", 0, 4}, {"stuck-write-cycle", 0, 6}};
    for (const auto& each : faults) {
        for (std::uint64_t page = 1; page <= 10; ++page) {
            SCOPED_TRACE(std::string(each.kind) + " at page " + std::to_string(page));
            OpenDevice device("sim:planar");
            device.set(hub128());
            device.seek(onRiser);
            machine->addFault({.kind = each.kind, .bus = "planar", .nth = page, .count = 1, .value = each.value});
            EXPECT_EQ((Answer{640, 0}), device.write(data));
            machine->clearFaults();
            device.set({.address = 0x80});
            EXPECT_EQ((Bytes{each.status}), device.readAll(1));
            // Neither the page that failed nor one after it is stored.
            EXPECT_EQ(with(before, 0, part(data, 0, static_cast<std::size_t>(page - 1) * 64)), image("riser.bin"));
            fill("riser.bin", before);
            settle();
        }
    }
}

TEST_F(IicFaults, GoneBusComesBack)
{
    OpenDevice device("sim:planar");
    Bytes data(5);
    device.set(main256());
    machine->addFault({.kind = "gone", .bus = "planar"});
    EXPECT_EQ((Answer{0, ENODEV}), device.read(data));
    EXPECT_EQ((Answer{-1, ENODEV}), device.reset());
    machine->clearFaults();
    EXPECT_EQ((Answer{5, 0}), device.read(data));
}

TEST_F(IicFaults, ResetFailsWhileTheBusIsStillHeld)
{
    OpenDevice device("sim:planar");
    Bytes data(5);
    device.set(main256());
    // it outlasts one reset
    machine->addFault({.kind = "hold-sda", .bus = "planar", .count = 1, .value = 1});
    EXPECT_EQ((Answer{0, ETIME}), device.read(data));
    EXPECT_EQ((Answer{-1, ETIME}), device.reset());
    EXPECT_EQ((Answer{0, 0}), device.reset());
    EXPECT_EQ((Answer{5, 0}), device.read(data));
    errno = 0;
    EXPECT_EQ(-1, mern_iic_reset(device.handle(), 0));
    EXPECT_EQ(EINVAL, errno);
}

} // namespace
} // namespace kest::test
