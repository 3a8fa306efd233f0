/// @file
/// Text utilities: hexadecimal digits, printable text, dumps, node names. All may be called from any thread.
#pragma once

#include "platform/mern.h"

class ErrlEntry;

namespace kest
{

/// Turns the low 4 bits of a value into a digit.
/// @param value  the other bits are ignored
/// @return the lowercase hexadecimal digit
char KEST_miscLowHexNibbleToChar(char value);

/// Writes bytes as lowercase hexadecimal digits, high nibble first, without terminator.
/// @param[out] out  room for 2 x `count` characters
/// @param count  bytes at `in`
/// @param in  stays the caller's
void KEST_miscUnpack(char* out, unsigned int count, const char* in);

/// Copies bytes, unprintable ones as '.', without terminator.
/// @param[out] out  room for `count` characters
/// @param count  bytes at `in`
/// @param in  stays the caller's
void KEST_miscPutText(char* out, unsigned int count, const char* in);

/// Formats a hexadecimal dump: a line of 66 characters for each 16 bytes, with offset, digits and text.
/// The last line shows 16 bytes, too: `data` must be readable up to the next multiple of 16.
/// @param data  stays the caller's
/// @param length  bytes at `data`
/// @return NUL-terminated text to delete with `delete[]`; for length 0 a block of one character that is not set.
/// Null when there is no memory.
char* KEST_miscFmtAndDump(const char* data, unsigned int length);

/// Looks a node name up: "L" and "l" are the local node, -1; "0" to "7" are nodes 0 to 7.
/// @param name  stays the caller's; null is an unknown name
/// @param[out] node  the number; left alone when the name is unknown
/// @param[in,out] entry  null, or an entry that the caller owns. An unknown name is logged into it, return code
/// 0x80001318; where there was none, the caller owns the new one.
void KEST_convert_str_to_MernNodeId(const char* name, NodeType* node, ErrlEntry*& entry);

} // namespace kest

using kest::KEST_convert_str_to_MernNodeId;
using kest::KEST_miscFmtAndDump;
using kest::KEST_miscLowHexNibbleToChar;
using kest::KEST_miscPutText;
using kest::KEST_miscUnpack;
