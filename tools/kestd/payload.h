/// The fields of a request's payload. Its words are in host byte order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/client/frame.h"

namespace kest::service
{

/// Whether a request reads or writes bytes of a SEEPROM.
[[nodiscard]] bool isTransfer(const client::frame& request);

/// Whether the payload of a read or write has offset and length.
[[nodiscard]] bool hasLength(const client::frame& request);
/// The number of bytes that a read or write asks for; 0 when the payload is too short to have it.
[[nodiscard]] std::uint32_t wantedLength(const client::frame& request);
/// The offset of a read or write; 0 likewise.
[[nodiscard]] std::uint32_t wantedOffset(const client::frame& request);
/// The device text of a read or write; nothing when the payload ends within the text, which the library refuses. A text
/// that fills the field has no NUL. It lies in the request.
[[nodiscard]] std::optional<std::string_view> locationOf(const client::frame& request);

/// The same request with the device table's text for its device, so that the library sees no other text.
/// @param replaced  bytes of the text that it has
[[nodiscard]] client::frame withLocation(const client::frame& request, std::size_t replaced, const std::string& text);
/// The same request for another number of bytes. @param request  hasLength()
[[nodiscard]] client::frame withLength(const client::frame& request, std::uint32_t length);

/// A request to read a device.
[[nodiscard]] client::frame readRequest(const std::string& location, std::uint32_t offset, std::uint32_t length);

} // namespace kest::service
