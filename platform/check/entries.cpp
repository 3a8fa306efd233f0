/// Checks of the error log: who owns an entry, what it keeps, and what a commit promises.
#include <algorithm>
#include <array>
#include <thread>

#include "platform/check/run.h"

namespace kest::check
{
namespace
{

using words = std::vector<std::uint32_t>;

constexpr std::uint16_t component = 0x1300;

/// The words of makeEntry(0x1309, 0x11111111).
const words wordsExpected{0x00B143FF, 0x13000021, 0x1309, 0x55, 0x11111111, 0x22222222, 0x33333333, 0xFFFFFFFF};

bool sameWords(run& run, const char* what, const words& expected, const words& found)
{
    return run.same("words of an SRC", static_cast<long long>(expected.size()), static_cast<long long>(found.size())) &&
           run.holds(what, expected == found);
}

void firstSrc(run& run)
{
    const ownedEntry entry(makeEntry(0x1309, 0x11111111));
    if (run.holds("an entry was made", entry != nullptr)) {
        sameWords(run, "the words are type, module, reason, subsystem and user data 1 to 4", wordsExpected,
                  wordsOf(entry->getSRC(0)));
        run.holds("there is no second SRC", entry->getSRC(1) == nullptr && entry->getSRC(0xFFFF) == nullptr);
    }
}

void addedSrc(run& run)
{
    const ownedEntry entry(makeEntry(0x1309, 0x11111111));
    const SrciSrc* const first = entry->getSRC(0);
    for (unsigned int number = 1; number <= 3; ++number) {
        entry->addSRC(component, SRCI_TYPE_SERVICE_PROCESSOR, 0, 0x22, SERVICE_CODE_KEST, 0x130A, number, 0, 0, 0,
                      EPUB_SUBSYSTEM_SOFTWARE);
    }
    sameWords(run, "the third added SRC is at index 3", {0x00B143FF, 0x13000022, 0x130A, 0x81, 3, 0, 0, 0},
              wordsOf(entry->getSRC(3)));
    run.holds("the first SRC is still where it was", first == entry->getSRC(0));
    sameWords(run, "the first SRC is as it was", wordsExpected, wordsOf(first));
}

void copiedSrc(run& run)
{
    const ownedEntry entry(makeEntry(0x1301));
    {
        const ownedEntry other(makeEntry(0x1309, 0x11111111));
        entry->addSRC(other->creator(), *other->getSRC(0));
    }
    sameWords(run, "a copied SRC outlives the entry that it is from", wordsExpected, wordsOf(entry->getSRC(1)));
}

void returnCode(run& run)
{
    const ownedEntry entry(makeEntry(0x1309));
    run.same("return code of a new entry", 0, entry->getRC());
    entry->setRC(0x80001309);
    run.same("return code", 0x80001309, entry->getRC());
    entry->setRC(0x10001309);
    run.same("return code that was set again", 0x10001309, entry->getRC());
}

void creator(run& run)
{
    const ownedEntry entry(makeEntry(0x1309));
    run.same("creator", component, entry->creator());
}

void logIds(run& run)
{
    constexpr std::size_t perThread = 100;
    std::array<std::array<std::uint32_t, perThread>, 4> ids{};
    std::vector<std::thread> threads;
    threads.reserve(ids.size());
    for (auto& own : ids) {
        threads.emplace_back([&own] {
            for (std::uint32_t& id : own) {
                const ownedEntry entry(makeEntry(0x1309));
                id = entry != nullptr ? entry->plid() : 0;
            }
        });
    }
    words all;
    for (std::size_t at = 0; at < threads.size(); ++at) {
        threads[at].join();
        all.insert(all.end(), ids[at].begin(), ids[at].end());
    }
    std::ranges::sort(all);
    run.holds("no log id is 0", all.front() != 0);
    run.holds("no two entries have the same log id, also in several threads",
              std::ranges::adjacent_find(all) == all.end());
}

void assignment(run& run)
{
    const ownedEntry entry(makeEntry(0x1301));
    entry->addSRC(component, SRCI_TYPE_SERVICE_PROCESSOR, 0, 1, SERVICE_CODE_KEST, 1, 0, 0, 0, 0,
                  EPUB_SUBSYSTEM_SOFTWARE);
    std::uint32_t id = 0;
    {
        const ownedEntry other(makeEntry(0x1309, 0x11111111));
        other->setRC(0x40001309);
        id = other->plid();
        *entry = *other;
    }
    sameWords(run, "the copy has the other's SRC", wordsExpected, wordsOf(entry->getSRC(0)));
    run.holds("its own SRCs are gone", entry->getSRC(1) == nullptr);
    run.same("return code of the copy", 0x40001309, entry->getRC());
    run.same("log id of the copy", id, entry->plid());
}

void additions(run& run)
{
    const ownedEntry entry(makeEntry(0x1309, 0x11111111));
    entry->setRC(0x80001309);
    entry->CollectTrace("no_such_buffer", 500);
    entry->CollectTrace("kest", 0);
    entry->addUsrDtls("", 0, component, 1, 2);
    entry->addUsrDtls("text", 4, component, 1, 2);
    entry->setSev(ERRL_SEV_RECOVERED);
    entry->addProcedureCallout(SRCI_PRIORITY_HIGH, EPUB_PROCEDURE_IIC);
    entry->addFruCallout(SRCI_PRIORITY_HIGH, 0xFFFF);
    entry->addSwErr(component, 0x80001309, 13, 0xFFFF, 0);
    run.same("return code after other items were added", 0x80001309, entry->getRC());
    sameWords(run, "the SRC is as it was", wordsExpected, wordsOf(entry->getSRC(0)));
    run.holds("other items add no SRC", entry->getSRC(1) == nullptr);
}

void commits(run& run)
{
    if (!run.has("way to read its error log", run.port.committedText != nullptr)) {
        return;
    }
    std::uint32_t id = 0;
    {
        std::string details = "\x01\xAB"
                              "check";
        const ownedEntry entry(makeEntry(0x1309));
        entry->addUsrDtls(details.data(), static_cast<unsigned short>(details.size()), component, 1, 2);
        details.assign(details.size(), 'x');
        id = entry->plid();
        run.same("text in the log before the commit", "", run.port.committedText(id));
        entry->commit(component, ERRL_ACTION_KEEP_FOR_SERVICE);
        run.holds("the log has the entry when commit() returns", !run.port.committedText(id).empty());
    }
    run.holds("the log has the entry's user details, as they were when they were added",
              run.port.committedText(id).find("01ab636865636b") != std::string::npos);
}

void ownership(run& run)
{
    const ownedEntry entry(makeEntry(0x1309, 0x11111111));
    entry->setRC(0x80001309);
    entry->commit(component, ERRL_ACTION_KEEP_FOR_SERVICE);
    run.same("return code after the commit", 0x80001309, entry->getRC());
    sameWords(run, "a committed entry is the caller's as before", wordsExpected, wordsOf(entry->getSRC(0)));
}

void deletedEntry(run& run)
{
    if (!run.has("way to read its error log", run.port.committedText != nullptr)) {
        return;
    }
    std::uint32_t id = 0;
    {
        const ownedEntry entry(makeEntry(0x1309));
        id = entry->plid();
    }
    run.same("text in the log of an entry that was only deleted", "", run.port.committedText(id));
}

void manyEntries(run& run)
{
    std::vector<ownedEntry> entries;
    for (std::uint32_t number = 0; number < 64; ++number) {
        entries.emplace_back(makeEntry(0x1309, number));
    }
    for (std::uint32_t number = 0; number < entries.size(); ++number) {
        const auto found = entries[number] != nullptr ? wordsOf(entries[number]->getSRC(0)) : words{};
        run.holds("64 entries at a time have each its own words", found.size() == 8 && found[4] == number);
    }
    ErrlBase::operator delete(nullptr);
}

constexpr std::array checks{
    check{"entries: a new entry has its first SRC, in eight words", firstSrc},
    check{"entries: SRCs are added behind those already there", addedSrc},
    check{"entries: an SRC of another entry is copied", copiedSrc},
    check{"entries: the return code is the one set last", returnCode},
    check{"entries: the creator is the constructor's component", creator},
    check{"entries: log ids are unique and never 0", logIds},
    check{"entries: an assignment copies everything", assignment},
    check{"entries: other items leave SRCs and return code alone", additions},
    check{"entries: a commit stores the entry", commits},
    check{"entries: a committed entry still belongs to the caller", ownership},
    check{"entries: an entry that is deleted without a commit is not logged", deletedEntry},
    check{"entries: many entries exist side by side", manyEntries},
};

} // namespace

std::span<const check> entryChecks() { return checks; }

} // namespace kest::check
