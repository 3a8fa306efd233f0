/// @file
/// The platform's messages, as a dispatcher hands them to a service and takes its reply back.
#pragma once

#include <cstdint>

/// One message: a request, or the reply to one. One thread uses it at a time.
class NetcMessage
{
public:
    NetcMessage();
    NetcMessage(const NetcMessage&) = delete;
    NetcMessage& operator=(const NetcMessage&) = delete;
    virtual ~NetcMessage();

    std::uint16_t identifier = 0; ///< given by the requester, copied into the reply
    std::uint16_t type = 0; ///< what is asked for
    std::uint8_t replyFlags = 0; ///< set by the service that fills the reply

    /// Returns the payload.
    /// @return its bytes, owned by the message; null when there is none.
    virtual char* dataPointer() const;
    /// Returns the payload's size.
    /// @return bytes
    virtual unsigned int dataSize() const;
    /// Replaces the payload by a copy of `size` bytes, which may be part of the old payload. With `size` 0 there is no
    /// payload afterwards.
    /// @param data  stays the caller's
    /// @param size  bytes at `data`
    /// @return false when there is no memory for it, or `data` is null and `size` is not 0; the payload is then empty.
    virtual bool setData(const char* data, unsigned int size);

private:
    struct State;
    State* m_state;
};
