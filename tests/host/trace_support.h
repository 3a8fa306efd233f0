/// What the trace tests share.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/host/trace/image.h"
#include "platform/host/trace/reader.h"
#include "platform/host/trace/render.h"
#include "platform/host/trace/rings.h"
#include "platform/trace.h"
#include "tests/sanitizers.h"

namespace kest::test
{

/// A ring of the test's own; each name makes one per process.
inline trace_wobu_descriptor newRing(const char* name, unsigned size = 8092)
{
    trace_wobu_descriptor ring = nullptr;
    EXPECT_EQ(0, trace_wobu_init_buffer(&ring, name, size));
    return ring;
}

inline std::vector<host::traceRecord> recordsOf(const char* name)
{
    host::ringContents ring = host::readRingImage(host::copyRing(name));
    EXPECT_EQ("", ring.error);
    return ring.records;
}

inline std::vector<std::string> textsOf(const std::vector<host::traceRecord>& records)
{
    std::vector<std::string> texts;
    for (const host::traceRecord& record : records) {
        texts.push_back(record.text);
    }
    return texts;
}

/// A folder that goes with the test.
class ScratchFolder
{
public:
    ScratchFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kest-trace-XXXXXX").string();
        EXPECT_NE(nullptr, mkdtemp(name.data()));
        m_path = name;
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    ~ScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    [[nodiscard]] const std::filesystem::path& path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

/// Runs `body` in a child process. @return its exit code, or 256 and the signal that ended it
inline int inChild(const std::function<int()>& body)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        continue;
    }
    return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace kest::test
