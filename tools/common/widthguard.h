/// Writes only to a part whose offset width is proved: the proof before the first write, and what is asked when the
/// width can't be known.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "tools/common/failure.h"
#include "tools/common/firstundo.h"
#include "tools/common/interrupt.h"
#include "tools/common/seeprom.h"
#include "tools/common/shortpart.h"
#include "tools/common/widthengine.h"
#include "tools/common/widthtrial.h"

namespace kest::tools
{

struct widthOptions {
    bool yes = false; ///< a trial write is confirmed
    bool dryRun = false; ///< nothing is asked
    bool unproved = false; ///< write also when the width can't be proved
};

/// The proofs of one write, in the order in which the write calls them. Without effect for persisted copies and for
/// devices that are no SEEPROMs. Functions throw a `failure` (exit code 3) that says what was seen.
class widthGuard
{
public:
    widthGuard(seeprom& chip, const byteRange& whole, const widthOptions& options);

    /// Before the first read by the type of the device. A read behind two offset bytes can change a part with one: such
    /// a type is proved now, and so is one behind a hub. Where neither that shows the width nor a change could be seen
    /// afterwards, the user is asked first.
    void beforeReading();
    /// Before each read by the type of the device, until afterReading() or afterFailedRead(). readWatched() calls these.
    void willRead(const byteRange& range);
    /// After the bytes were read. When the read itself has changed bytes, they are put back.
    void afterReading();
    /// The same when not all of them could be read. What it finds goes into the failure of an interruption, and is a
    /// failure of its own otherwise. Without a change by the read it returns, and adds to the failure when that is not
    /// known.
    void afterFailedRead(failure& why);
    /// Before anything is asked or written, and only when a page is to be written.
    void beforeWriting(std::span<const unsigned char> old, std::span<const unsigned char> wanted);
    /// After the old bytes are saved: a trial write, when the content could not decide.
    /// @param undoFile  with these bytes. It is removed when the write is refused and the part holds its old bytes
    void tryOut(const std::string& undoFile);
    /// Whether a byte was written as a trial. It belongs to the bytes that are to be written.
    [[nodiscard]] bool hasTried() const { return m_trial.has_value(); }
    /// Whether an undo file for a part with one offset byte stays, beside that of the write.
    [[nodiscard]] bool keepsFirst() const { return m_firstUndo && m_firstUndo->stays(); }
    /// Puts the byte of a trial back. @return false when that is not certain
    [[nodiscard]] bool takeTrialBack();
    /// What was found out; nothing when no proof was needed.
    [[nodiscard]] const std::optional<widthFinding>& finding() const { return m_finding; }

private:
    [[nodiscard]] bool isOpen() const;
    void prove();
    void settle();
    void askForWidth();
    [[nodiscard]] bool watchesReads() const { return isOpen() && !m_finding->first.empty(); }
    [[nodiscard]] firstChange changeByReading();
    [[nodiscard]] failure changedByReading(firstChange change);
    [[nodiscard]] firstUndo& firstFile();
    void watchReads();
    [[nodiscard]] trialResult lookAtTrial(std::string& hint);
    void keepUnproved();

    seeprom& m_chip;
    byteRange m_range;
    widthOptions m_options;
    bool m_needed;
    unsigned m_claimedBytes;
    bool m_provedByTable; ///< the device table says that the type has the right width: nothing is tried out
    bool m_accepted; ///< the user writes without a proof
    std::optional<widthFinding> m_finding;
    std::optional<trialByte> m_trial;
    /// Where the reads by the type of the device change a ferroelectric part with one offset byte.
    firstOffsets m_readsChange;
    std::optional<firstUndo> m_firstUndo;
    std::optional<finalWords> m_words;
};

} // namespace kest::tools
