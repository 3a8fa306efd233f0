/// Bytes behind which nothing can be read: one byte too many ends the test.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include <gtest/gtest.h>

class BytesAtTheEdge
{
public:
    /// Copies at most a page of bytes.
    BytesAtTheEdge(const void* bytes, std::size_t size)
    {
        void* const pages = mmap(nullptr, 2 * m_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED || size > m_page) {
            ADD_FAILURE() << "no pages, or too many bytes";
            return;
        }
        m_pages = static_cast<char*>(pages);
        EXPECT_EQ(0, mprotect(m_pages + m_page, m_page, PROT_NONE));
        m_bytes = m_pages + m_page - size;
        // else there need not be any bytes
        if (size != 0) {
            std::memcpy(m_bytes, bytes, size);
        }
    }
    BytesAtTheEdge(const BytesAtTheEdge&) = delete;
    BytesAtTheEdge& operator=(const BytesAtTheEdge&) = delete;
    ~BytesAtTheEdge()
    {
        if (m_pages != nullptr) {
            munmap(m_pages, 2 * m_page);
        }
    }
    char* get() const { return m_bytes; }

private:
    const std::size_t m_page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    char* m_pages = nullptr;
    char* m_bytes = nullptr;
};
