/// Text utilities: hexadecimal digits, printable text, dumps, node names.
#pragma once

#include "platform/mern.h"

class ErrlEntry;

namespace kest
{

/// @return the lowercase hexadecimal digit of the low 4 bits of `value`.
char KEST_miscLowHexNibbleToChar(char value);

/// Writes exactly 2 x `count` hexadecimal digits of `count` bytes, high nibble first, without terminator.
void KEST_miscUnpack(char* out, unsigned int count, const char* in);

/// Copies `count` bytes, unprintable ones as '.', without terminator.
void KEST_miscPutText(char* out, unsigned int count, const char* in);

/// Formats a hexadecimal dump: a line of 66 characters for each 16 bytes, with offset, digits and text.
/// The last line shows 16 bytes, too: `data` must be readable up to the next multiple of 16.
/// @return NUL-terminated text to delete with `delete[]`; for length 0 a block of one character that is not set.
/// Null when there is no memory.
char* KEST_miscFmtAndDump(const char* data, unsigned int length);

/// Looks a node name up: "L" and "l" are the local node, -1; "0" to "7" are nodes 0 to 7.
/// @param[out] node  the number; left alone when the name is unknown
/// @param[in,out] entry  an unknown name is logged into it, return code 0x80001318
void KEST_convert_str_to_MernNodeId(const char* name, NodeType* node, ErrlEntry*& entry);

} // namespace kest

using kest::KEST_convert_str_to_MernNodeId;
using kest::KEST_miscFmtAndDump;
using kest::KEST_miscLowHexNibbleToChar;
using kest::KEST_miscPutText;
using kest::KEST_miscUnpack;
