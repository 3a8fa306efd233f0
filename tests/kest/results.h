/// What the library's functions leave to their callers; the tests own it.
#pragma once

#include <cstdint>
#include <vector>

#include "kest/address.h"
#include "tests/platform/scripted.h"

namespace results
{

/// A test of functions that give an error entry to their caller.
class EntryTest : public scripted::PlatformTest
{
protected:
    ~EntryTest() override { delete errl; }

    /// Makes ready for another call on a platform without any history.
    void again();

    ErrlEntry* errl = nullptr;
};

/// A test of functions that also give a buffer to their caller.
class BufferTest : public EntryTest
{
protected:
    ~BufferTest() override { release(); }

    void again();
    /// Frees entry and buffer.
    void release();

    scripted::Bytes bytesRead() const;

    unsigned char* data = nullptr;
    unsigned int length = 0;
};

/// A device of an address list, by value.
struct Node {
    unsigned char address;
    std::uint32_t type;
    unsigned char port;
    bool operator==(const Node&) const = default;
};

std::vector<Node> nodesOf(const kest_deviceAddress* list);

} // namespace results
