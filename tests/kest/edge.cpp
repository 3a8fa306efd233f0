#include "tests/kest/edge.h"

#include <cstring>
#include <gtest/gtest.h>

BytesAtTheEdge::BytesAtTheEdge(const void* bytes, std::size_t size)
{
    void* const pages = mmap(nullptr, 2 * m_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED || size > m_page) {
        ADD_FAILURE() << "no pages, or too many bytes";
        return;
    }
    m_pages = static_cast<char*>(pages);
    EXPECT_EQ(0, mprotect(m_pages + m_page, m_page, PROT_NONE));
    m_bytes = m_pages + m_page - size;
    // with size 0 there need not be any bytes
    if (size != 0) {
        std::memcpy(m_bytes, bytes, size);
    }
}
