/// Reads of a part before its offset width is certain. A read behind two offset bytes changes a ferroelectric part with
/// one: all such reads are made in one scope, and what they changed is put back at its end.
#pragma once

#include <exception>
#include <string>

#include "tools/common/failure.h"
#include "tools/common/partcontents.h"
#include "tools/common/seeprom.h"
#include "tools/common/widthguard.h"

namespace kest::tools
{

/// The part within such a scope.
class watchedReads
{
public:
    /// Both outlive the object and the readers that it gives.
    watchedReads(seeprom& chip, widthGuard& width) : m_chip(chip), m_width(width) {}

    /// As seeprom::read().
    [[nodiscard]] byteVector read(const byteRange& range, const std::string& step);
    /// The same for one step.
    [[nodiscard]] bytesReader reader(const std::string& step);

private:
    seeprom& m_chip;
    widthGuard& m_width;
};

/// Calls `reads` with a `watchedReads`. The guard is asked before, and looks for changes afterwards, also after a
/// failure and a signal. What the bytes mean is better judged behind it: a refusal then finds the part as it was.
/// @return what `reads` returns. Throws what it throws, and as the guard
template <typename Reads>
[[nodiscard]] auto readWatched(seeprom& chip, widthGuard& width, Reads reads)
{
    width.beforeReading();
    const auto watched = [&] {
        try {
            return reads(watchedReads(chip, width));
        } catch (failure& why) {
            width.afterFailedRead(why);
            throw;
        } catch (const std::exception& other) {
            failure why{.what = other.what(), .device = chip.target().label};
            width.afterFailedRead(why);
            throw;
        }
    };
    auto result = watched();
    width.afterReading();
    return result;
}

} // namespace kest::tools
