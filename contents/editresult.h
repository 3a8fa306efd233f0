/// What edits of an image take and give.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "contents/valueencoder.h"

namespace kest::contents
{

struct fieldSetting {
    std::string field; ///< its name
    std::string value; ///< empty: the field is removed, or emptied where its place stays
};

/// What came of an edit.
struct editResult {
    byteString bytes; ///< of the whole image; empty after a refusal
    std::string refusal; ///< empty: done
    std::string tryThis = {};
    bool wrongUse = false; ///< no image would take this
};

[[nodiscard]] editResult refused(std::string what, std::string tryThis = {});

/// The refusal of a field or value that no image would take.
[[nodiscard]] editResult refusedUse(std::string what, std::string tryThis = {});

/// The refusal of a value. @param complaint  what would be allowed
[[nodiscard]] editResult refusedValue(const fieldSetting& setting, const std::string& complaint);

/// Whether all bytes are 00, or all are FF: nothing is lost where something else is put there.
[[nodiscard]] bool isBlank(std::span<const std::uint8_t> bytes);

} // namespace kest::contents
