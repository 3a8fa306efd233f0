/// kest_platform_check: runs the checks of the platform interface against the platform that it is linked with.
#include <array>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/check/run.h"

namespace
{

using namespace kest::check;

std::vector<check> allChecks()
{
    std::vector<check> all;
    for (const auto group : {entryChecks, traceChecks, serviceChecks, messageChecks, deviceChecks, transferChecks,
                             lockChecks, libraryChecks}) {
        all.insert(all.end(), group().begin(), group().end());
    }
    return all;
}

struct counts {
    int passed = 0, failed = 0, left = 0;
};

/// Prints the check's name before it runs, so that one that never ends, or ends the program, is known.
void make(const check& check, const kest_checkedPort& port, counts& counts)
{
    std::printf("%-72s ", check.name);
    std::fflush(stdout);
    run run(port);
    check.make(run);
    if (!run.finding.empty()) {
        std::printf("FAILED: %s\n", run.finding.c_str());
        ++counts.failed;
    } else if (!run.lacks.empty()) {
        std::printf("left out: the platform names no %s\n", run.lacks.c_str());
        ++counts.left;
    } else {
        std::puts("ok");
        ++counts.passed;
    }
}

int list()
{
    for (const check& check : allChecks()) {
        std::puts(check.name);
    }
    return 0;
}

int usage(const char* program)
{
    std::fprintf(stderr,
                 "usage: %s [TEXT]    runs the checks whose names contain TEXT, or all of them\n"
                 "       %s --list    prints the names of the checks\n",
                 program, program);
    return 2;
}

} // namespace

int main(int count, char** arguments)
{
    const char* const wanted = count > 1 ? arguments[1] : "";
    if (std::strcmp(wanted, "--list") == 0) {
        return list();
    }
    if (count > 2 || wanted[0] == '-') {
        return usage(arguments[0]);
    }
    const kest_checkedPort port = kest_describePort();
    counts counts;
    for (const check& check : allChecks()) {
        if (std::strstr(check.name, wanted) != nullptr) {
            make(check, port, counts);
        }
    }
    std::printf("%d passed, %d failed, %d left out\n", counts.passed, counts.failed, counts.left);
    return counts.failed == 0 && counts.passed > 0 ? 0 : 1;
}
