/// @file
/// The platform's registry: short values under text keys.
#pragma once

class ErrlEntry;

/// The registry. Any thread may read it.
class UtilReg
{
public:
    /// Reads a value.
    /// @param key  its key, which stays the caller's
    /// @param[out] buffer  takes the value's bytes, without terminator. The rest of the buffer is unchanged; after a
    /// failure all of it is.
    /// @param[in,out] size  in: bytes that `buffer` holds; out: bytes of the value; unchanged after a failure. A value
    /// that does not fit is an error.
    /// @param reserved  false
    /// @param entry  null
    /// @return null on success, else an entry that the caller owns.
    static ErrlEntry* read(const char* key, void* buffer, unsigned int& size, bool reserved, ErrlEntry* entry);
};
