#include "sim/busmodel.h"

#include "base/descriptor.h"
#include "base/quietwrites.h"
#include "sim/speed.h"

#include <cerrno>
#include <span>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

constexpr unsigned recoveryClocks = 9;

std::string labelOf(const busDescription& bus, const chipDescription& chip)
{
    const std::string behind =
        chip.behindHub ? addressText(chip.hub) + " port " + std::to_string(chip.port) + " " : std::string{};
    return fullName(bus) + " " + behind + addressText(chip.address) + " " + chip.typeName;
}

// Whether a file begins as VCD files do: with one of their key words.
bool beginsAsWaveform(int file)
{
    constexpr std::array<std::string_view, 6> keyWords{"$comment", "$date", "$version", "$timescale", "$scope", "$var"};
    std::array<char, 64> begin{};
    const ssize_t got = pread(file, begin.data(), begin.size(), 0);
    std::string_view text = {begin.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
    text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
    return std::ranges::any_of(keyWords, [text](std::string_view word) { return text.starts_with(word); });
}

// Opens or makes the file of a recording, and leaves its content alone. -1 with EEXIST for one that holds something
// else.
int openWaveFile(const std::string& path)
{
    struct stat found {
    };
    int file = ownDescriptor(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0666));
    if (file < 0 && (errno == EISDIR || errno == ELOOP || errno == ENXIO)) {
        errno = EEXIST;
    }
    if (file >= 0 &&
        (fstat(file, &found) != 0 || !S_ISREG(found.st_mode) || (found.st_size != 0 && !beginsAsWaveform(file)))) {
        close(file);
        file = -1;
        errno = EEXIST;
    }
    return file;
}

// Makes `text` the whole content of a file. What needs new space is written first, behind the old content: when there
// is none, the file is left as it was, with false and `errno`.
bool replaceBy(int file, const std::string& text)
{
    const std::span<const std::uint8_t> bytes{reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
    struct stat old {
    };
    if (fstat(file, &old) != 0) {
        return false;
    }
    const std::size_t kept =
        std::cmp_less(old.st_size, bytes.size()) ? static_cast<std::size_t>(old.st_size) : bytes.size();
    if (writeAllAt(file, bytes.subspan(kept), static_cast<off_t>(kept)) != 0) {
        const int error = errno;
        errno = ftruncate(file, old.st_size) == 0 ? error : errno;
        return false;
    }
    return writeAllAt(file, bytes.first(kept), 0) == 0 && ftruncate(file, static_cast<off_t>(bytes.size())) == 0;
}

} // namespace

/// A use of the bus by one thread of one process: state is loaded at its begin, and lost at its end unless committed.
class busModel::session
{
public:
    explicit session(busModel& of) : owner{of}, held{*of.file, of.index}, loaded{held.held() && of.load()}
    {
        catchUp();
    }
    ~session()
    {
        for (auto& member : owner.members) {
            if (member.cells) {
                member.cells->close();
            }
        }
    }
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    [[nodiscard]] bool usable() const { return loaded; }
    bool commit(waveText* wave = nullptr) { return loaded && (waitForBusTime(), owner.commit(wave)); }

private:
    // In real time the bus's clock goes on between transactions, too.
    void catchUp()
    {
        if (loaded && owner.clock != nullptr) {
            startedAt = owner.clock->nowNs();
            if (owner.state.clockStamp != 0 && startedAt > owner.state.clockStamp) {
                owner.state.now =
                    std::min(owner.state.now + std::min(startedAt - owner.state.clockStamp, latestTime), latestTime);
            }
            timeAtStart = owner.state.now;
        }
    }
    void waitForBusTime()
    {
        if (owner.clock != nullptr) {
            const std::uint64_t end = startedAt + (owner.state.now - std::min(timeAtStart, owner.state.now));
            owner.clock->sleepUntil(end);
            owner.state.clockStamp = std::max(end, startedAt);
        }
    }

    busModel& owner;
    stateFile::hold held;
    bool loaded;
    std::uint64_t startedAt = 0, timeAtStart = 0;
};

busModel::busModel(const machineDescription& all, std::size_t number, const std::filesystem::path& folder,
                   realClock* waitsBy)
    : about{all.buses[number]}, index{number}, clock{waitsBy}
{
    for (const auto& chip : all.chips) {
        if (chip.bus == number) {
            addMember(chip, folder);
        }
    }
    connect();
}

void busModel::addMember(const chipDescription& chip, const std::filesystem::path& folder)
{
    member added{&chip, nullptr, nullptr, labelOf(about, chip)};
    switch (chip.kind) {
    case chipKind::eeprom:
        added.cells = std::make_unique<image>(folder / chip.image, eepromTypes.at(chip.type).sizeBytes);
        added.model = std::make_unique<eeprom>(eepromTypes.at(chip.type), chip.memory, *added.cells);
        break;
    case chipKind::pca955x:
        added.model = std::make_unique<pca955x>(pca955xTypes.at(chip.type), chip.inputs);
        break;
    case chipKind::sensor:
        added.model = std::make_unique<sensor>(sensorTypes.at(chip.type), chip.celsius, chip.temperatureBits);
        break;
    case chipKind::hub:
        added.model = std::make_unique<hub922>();
        break;
    }
    members.push_back(std::move(added));
}

// Chips onto the bus and behind their hubs, and the hubs' reset lines to pin 15 of their LED driver.
void busModel::connect()
{
    for (const auto& member : members) {
        if (!member.about->behindHub) {
            chips.at[member.about->address >> 1] = member.model.get();
            if (member.about->kind == chipKind::hub) {
                chips.hubAt[member.about->address >> 1] = static_cast<hub922*>(member.model.get());
            }
        }
    }
    for (const auto& member : members) {
        if (member.about->behindHub) {
            const std::uint32_t offsetBytes =
                member.about->kind == chipKind::eeprom ? eepromTypes.at(member.about->type).offsetBytes : 1;
            chips.findHub(member.about->hub)
                ->attach(member.about->port, member.about->address, *member.model, offsetBytes);
        }
    }
    for (const auto& driver : members) {
        for (const unsigned hub : {0x80U, 0x88U, 0x82U, 0x8AU}) {
            const bool drives = driver.about->typeName == "PCA9552" && !driver.about->behindHub &&
                                driver.about->address == ((hub & 2) == 0 ? 0xC0 : 0xC2);
            const auto address = static_cast<std::uint8_t>(hub);
            if (drives && chips.findHub(address) != nullptr) {
                chips.resetLines.push_back(
                    {address, chips.findHub(address), static_cast<const pca955x*>(driver.model.get())});
            }
        }
    }
}

void busModel::prepareImages(const std::string& machineFile)
{
    for (auto& member : members) {
        int error = 0;
        const std::string trouble = member.cells ? member.cells->prepare(error) : std::string{};
        std::string where = machineFile + ":" + member.about->place + ": image '" + member.about->image + "'";
        if (error != 0) {
            throw std::system_error{error, std::generic_category(), where};
        }
        if (!trouble.empty()) {
            throw std::runtime_error{where.append(": ").append(trouble)};
        }
    }
}

// A page is written that a killed process did not get to.
bool busModel::load()
{
    if (!file->usable(mark)) {
        return false;
    }
    if (readRecord() != nullptr) {
        damaged = true;
        return false;
    }
    // the machine file may pull them otherwise by now
    chips.driveResetLines(state.faults);
    return writePage();
}

/// @return what is damaged; null: nothing
const char* busModel::readRecord()
{
    const auto record = file->current(index);
    stateFields fields{record.first(busStateBytes), stateFields::way::load};
    state = busState{};
    state.state(fields);
    const char* damage = fields.damaged();
    for (std::size_t i = 0; damage == nullptr && i < members.size(); ++i) {
        stateFields chipFields{record.subspan(busStateBytes + i * chipStateBytes, chipStateBytes),
                               stateFields::way::load, state.now};
        if (members[i].cells) {
            members[i].cells->begin(static_cast<std::uint32_t>(i), state.page);
        }
        members[i].model->deselect();
        members[i].model->state(chipFields);
        damage = chipFields.damaged();
    }
    const bool known = state.page.chip < members.size() && members[state.page.chip].cells &&
                       members[state.page.chip].cells->holds(state.page);
    if (damage == nullptr && state.page.pending && !known) {
        damage = "the page on its way into an image";
    }
    return damage;
}

std::string busModel::damage()
{
    const char* const what = readRecord();
    return what == nullptr ? std::string{} : "bus '" + fullName(about) + "': " + what + " cannot be";
}

void busModel::store()
{
    const auto record = file->spare(index);
    stateFields fields{record.first(busStateBytes), stateFields::way::store};
    state.state(fields);
    for (std::size_t i = 0; i < members.size(); ++i) {
        stateFields chipFields{record.subspan(busStateBytes + i * chipStateBytes, chipStateBytes),
                               stateFields::way::store};
        members[i].model->state(chipFields);
    }
    file->turn(index);
}

// Waveform, state, image: what comes after the state can be done again from it, what comes before is lost without it.
bool busModel::commit(waveText* wave)
{
    if (wave != nullptr) {
        appendWave(wave->take(state.now));
        state.waveAt = wave->end();
    }
    store();
    return writePage();
}

bool busModel::writePage()
{
    bool good = true;
    if (state.page.pending) {
        good = members[state.page.chip].cells->store(state.page);
        if (good) {
            state.page.pending = false;
            file->current(index)[0] = 0;
        }
    }
    return good;
}

std::uint64_t busModel::bitNs(std::uint32_t speedKhz) const { return 1'000'000 / clockKhz(speedKhz, about.speedKhz); }

bool busModel::adapterGone() const
{
    return std::ranges::any_of(state.faults, [](const faultRecord& record) {
        return record.kind == faultKind::gone && record.struck != 0 && record.usable();
    });
}

outcome busModel::heldLine() const
{
    outcome held = outcome::done;
    if (state.sclHeld) {
        held = outcome::sclHeld;
    } else if (state.sdaHeld || std::ranges::any_of(members, [](const member& one) {
                   return !one.about->behindHub && one.model->holdsSda();
               })) {
        held = outcome::sdaHeld;
    }
    return held;
}

bool busModel::imageLost() const
{
    return std::ranges::any_of(members, [](const member& one) { return one.cells && one.cells->isLost(); });
}

// What came from a lost image is nothing, and a page made with it would destroy what it holds when it is back: the
// transaction has not been.
transferResult busModel::transfer(std::span<segment> segments, std::uint32_t speedKhz)
{
    session use{*this};
    transferResult result;
    const auto odd = std::ranges::find_if(segments, [](const segment& part) { return (part.address & 1) != 0; });
    if (!use.usable()) {
        result.end = outcome::gone;
    } else if (odd != segments.end()) {
        result.end = outcome::addressNotAcknowledged;
        result.segment = static_cast<std::size_t>(odd - segments.begin());
    } else if (result.end = heldLine(); result.end == outcome::done && !segments.empty()) {
        waveText wave{state.waveOrigin, state.waveAt};
        const bool recorded = state.recording;
        wire lines{state.now, bitNs(speedKhz), recorded ? &wave : nullptr};
        result = transaction{chips, state, lines, segments}.run();
        state.now = std::min(lines.clock.now, latestTime);
        if (imageLost() || !use.commit(recorded ? &wave : nullptr)) {
            result.end = outcome::gone;
        }
    }
    result.busTimeNs = use.usable() ? state.now : 0;
    return result;
}

transferResult busModel::probe(std::uint8_t address, std::uint32_t speedKhz)
{
    segment alone{address, direction::write, {}, false};
    return transfer({&alone, 1}, speedKhz);
}

void busModel::free()
{
    state.sdaHeld = state.sclHeld = false;
    state.heldBy = state.resetsToGo = 0;
}

outcome busModel::pulses(unsigned count, bool stop)
{
    session use{*this};
    outcome after = outcome::gone;
    if (use.usable() && !adapterGone()) {
        waveText wave{state.waveOrigin, state.waveAt};
        const bool recorded = state.recording;
        wire lines{state.now, bitNs(0), recorded ? &wave : nullptr};
        if (stop && state.resetsToGo == 0) {
            free();
        }
        for (unsigned i = 0; i < count; ++i) {
            for (auto& member : members) {
                if (!member.about->behindHub) {
                    member.model->clockPulse();
                }
            }
            lines.pulse(heldLine() != outcome::sdaHeld);
        }
        if (stop) {
            for (auto& member : members) {
                if (!member.about->behindHub) {
                    member.model->deselect();
                }
            }
            if (state.resetsToGo != 0) {
                --state.resetsToGo;
            }
            for (auto& record : state.faults) {
                record.ended =
                    record.ended || (record.untilReset && !faultKinds.at(static_cast<std::size_t>(record.kind)).ofHub);
            }
        }
        after = heldLine();
        if (stop && after == outcome::done) {
            lines.stop();
        }
        state.now = std::min(lines.clock.now, latestTime);
        if (!use.commit(recorded ? &wave : nullptr)) {
            after = outcome::gone;
        }
    }
    return after;
}

outcome busModel::reset() { return pulses(recoveryClocks, true); }

outcome busModel::clocks(unsigned count) { return pulses(count, false); }

outcome busModel::lines()
{
    const session use{*this};
    return !use.usable() || adapterGone() ? outcome::gone : heldLine();
}

std::uint64_t busModel::busTimeNs()
{
    const session use{*this};
    return use.usable() ? state.now : 0;
}

void busModel::idle(std::uint64_t nanoseconds)
{
    const auto use = [this](std::uint64_t passes) {
        session now{*this};
        state.now = std::min(state.now + std::min(passes, latestTime), latestTime);
        now.commit();
    };
    if (clock != nullptr) {
        use(0);
        // others may use the bus meanwhile
        clock->sleepUntil(clock->nowNs() + std::min(nanoseconds, latestTime));
    }
    // in real time the clock has done it
    use(clock != nullptr ? 0 : nanoseconds);
}

void busModel::registers(std::vector<machine::registerValue>& into)
{
    const session use{*this};
    if (use.usable()) {
        for (auto& member : members) {
            for (auto& line : member.model->list(state.now)) {
                into.push_back({member.label, line.name, line.value, line.meaning});
            }
        }
    }
}

void busModel::powerCycle()
{
    session use{*this};
    if (use.usable()) {
        for (auto& member : members) {
            member.model->powerUp();
        }
        for (auto& record : state.faults) {
            record.ended = record.ended || record.untilReset;
        }
        chips.driveResetLines(state.faults);
        free();
        waveText freed = freedLines();
        use.commit(state.recording ? &freed : nullptr);
    }
}

void busModel::makeNew()
{
    state = busState{};
    for (auto& member : members) {
        member.model->asNew();
    }
    chips.driveResetLines(state.faults);
    store();
}

void busModel::replaceFileFaults(std::vector<faultRecord> fromFile)
{
    if (load()) {
        for (auto& record : state.faults) {
            if (!record.fromFile) {
                fromFile.push_back(record);
            }
        }
        state.faults = std::move(fromFile);
        endEffects();
        waveText freed = freedLines();
        commit(state.recording ? &freed : nullptr);
    }
}

bool busModel::addFault(const faultRecord& record)
{
    session use{*this};
    const bool fits =
        use.usable() && std::cmp_less(std::ranges::count(state.faults, false, &faultRecord::fromFile), mostFaults);
    if (fits) {
        state.faults.push_back(record);
        use.commit();
    }
    return fits;
}

// What a fault did and still lasts ends with it.
void busModel::endEffects()
{
    const faultEnded ended = [this](std::uint32_t number) {
        return std::ranges::find(state.faults, number, &faultRecord::number) == state.faults.end();
    };
    if (ended(state.heldBy)) {
        free();
    }
    for (auto& member : members) {
        member.model->endEffects(ended);
    }
}

// A line that was let go between transactions. A second one waits for the next START: two never change in one tick.
waveText busModel::freedLines() const
{
    waveText wave{state.waveOrigin, state.waveAt};
    if (!state.sclHeld && !state.waveAt.scl) {
        wave.scl(state.now, true);
    } else if (heldLine() != outcome::sdaHeld) {
        wave.sda(state.now, true);
    }
    return wave;
}

bool busModel::clearFaults(std::optional<std::uint32_t> number)
{
    session use{*this};
    if (!use.usable()) {
        return false;
    }
    const auto cleared =
        std::erase_if(state.faults, [&](const faultRecord& record) { return !number || record.number == *number; });
    endEffects();
    waveText freed = freedLines();
    use.commit(state.recording ? &freed : nullptr);
    return cleared != 0;
}

void busModel::listFaults(std::vector<machine::listedFault>& into)
{
    const session use{*this};
    if (use.usable()) {
        for (const auto& record : state.faults) {
            const auto known = std::ranges::find(into, record.number, &machine::listedFault::number);
            if (known != into.end()) {
                known->struck += record.struck;
            } else {
                into.push_back({record.number, describeFault(record, fullName(about), about.node), record.struck});
            }
        }
    }
}

// A file that is gone, cut or full ends the recording; the bus goes on.
void busModel::appendWave(const std::string& text)
{
    struct stat found {
    };
    const quietWrites quiet;
    const int wave = ownDescriptor(open(file->wavePath(index).c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    bool good = wave >= 0 && fstat(wave, &found) == 0 && S_ISREG(found.st_mode) &&
                std::cmp_greater_equal(found.st_size, state.waveBytes);
    std::size_t moved = 0;
    while (good && moved < text.size()) {
        const ssize_t wrote =
            pwrite(wave, text.data() + moved, text.size() - moved, static_cast<off_t>(state.waveBytes + moved));
        good = wrote > 0 || (wrote < 0 && errno == EINTR);
        moved += wrote > 0 ? static_cast<std::size_t>(wrote) : 0;
    }
    state.waveBytes += good ? moved : 0;
    if (wave >= 0) {
        // the rest of a killed process's text
        good = ftruncate(wave, static_cast<off_t>(state.waveBytes)) == 0 && good;
        close(wave);
    }
    state.recording = good;
}

bool busModel::startWave(const std::string& path)
{
    const quietWrites quiet;
    session use{*this};
    if (!use.usable() || path.size() > stateFile::longestPath) {
        errno = use.usable() ? ENAMETOOLONG : ENODEV;
        return false;
    }
    const int wave = openWaveFile(path);
    if (wave < 0) {
        return false;
    }
    const bool good = beginWave(wave, path);
    const int error = errno;
    close(wave);
    if (good) {
        use.commit();
    }
    errno = error;
    return good;
}

// The recording under way goes on when this one fails: what is done to it here is lost unless committed.
bool busModel::beginWave(int wave, const std::string& path)
{
    if (state.recording) {
        appendWave(waveText{state.waveOrigin, state.waveAt}.take(state.now));
    }
    const waveEnd begin{!state.sclHeld, heldLine() != outcome::sdaHeld, 0};
    const std::string head = waveText::header(about.name, begin.scl, begin.sda);
    if (!replaceBy(wave, head)) {
        return false;
    }
    file->setWavePath(index, path);
    state.recording = true;
    state.waveOrigin = state.now;
    state.waveBytes = head.size();
    state.waveAt = begin;
    return true;
}

bool busModel::stopWave()
{
    session use{*this};
    const bool good = use.usable() && state.recording;
    if (good) {
        appendWave(waveText{state.waveOrigin, state.waveAt}.take(state.now));
        state.recording = false;
        use.commit();
    } else {
        errno = use.usable() ? ENOENT : ENODEV;
    }
    return good;
}

} // namespace kest::sim
