/// Bytes at the end of readable memory: reading one byte too many ends the test.
#pragma once

#include <cstddef>
#include <sys/mman.h>
#include <unistd.h>

class BytesAtTheEdge
{
public:
    /// Copies at most a page of bytes.
    BytesAtTheEdge(const void* bytes, std::size_t size);
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
