#include "tests/host/trace_support.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kest::test
{

trace_wobu_descriptor newRing(const char* name, unsigned size)
{
    trace_wobu_descriptor ring = nullptr;
    EXPECT_EQ(0, trace_wobu_init_buffer(&ring, name, size));
    return ring;
}

std::vector<host::traceRecord> recordsOf(const char* name)
{
    host::ringContents ring = host::readRingImage(host::copyRing(name));
    EXPECT_EQ("", ring.error);
    return ring.records;
}

std::vector<std::string> textsOf(const std::vector<host::traceRecord>& records)
{
    std::vector<std::string> texts;
    for (const host::traceRecord& record : records) {
        texts.push_back(record.text);
    }
    return texts;
}

int inChild(const std::function<int()>& body)
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
