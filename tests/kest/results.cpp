#include "tests/kest/results.h"

namespace results
{

void EntryTest::again()
{
    delete errl;
    errl = nullptr;
    platform.reset();
}

void BufferTest::again()
{
    release();
    platform.reset();
}

void BufferTest::release()
{
    delete errl;
    errl = nullptr;
    void* buffer = data;
    tavo_util_free(&buffer);
    data = nullptr;
}

scripted::Bytes BufferTest::bytesRead() const
{
    return data == nullptr ? scripted::Bytes{} : scripted::Bytes(data, data + length);
}

std::vector<Node> nodesOf(const kest_deviceAddress* list)
{
    std::vector<Node> nodes;
    for (; list != nullptr; list = list->next) {
        nodes.push_back({list->address, list->type, list->port});
    }
    return nodes;
}

} // namespace results
