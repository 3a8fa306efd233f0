/// Building blocks of expected log texts. Everything here is written from what the library promises; nothing is taken
/// from the library itself.
#pragma once

#include <cstdint>
#include <string>

namespace expected
{

__attribute__((format(printf, 1, 2))) std::string line(const char* format, ...);

/// The errno values blamed on software: EINTR, EBADF, EFAULT, ENODEV, EINVAL, ENOSYS.
bool blamesSoftware(int error);

struct ExpectedSrc {
    unsigned module = 0, reason = 0;
    std::uint32_t word1 = 0, word2 = 0, word3 = 0, word4 = 0;
    unsigned subsystem = 0x81;
    const char* sourceId = "kestwobu";
};

/// How the failures of one layer operation are reported.
struct LayerCall {
    unsigned module, deadlockReason, otherReason;
    bool knowsAbsent; ///< ENXIO has its own reason
    std::uint32_t special2; ///< user data word 2 of EDEADLK and ENXIO
    std::uint32_t other2, other3;
};

struct Failure {
    ExpectedSrc src;
    std::uint32_t returnCode;
    bool committed;
};

Failure failure(const LayerCall& call, int error);

std::string sourceDetails(int entry, const char* sourceId);

/// The lines of an entry's construction.
std::string newEntry(int entry, const ExpectedSrc& src);

/// The lines of a further SRC on an entry.
std::string addedSrc(int entry, const ExpectedSrc& src);

inline std::string returnCode(int entry, std::uint32_t code) { return line("entry%d.setRC(0x%X)\n", entry, code); }
std::string callout(int entry, unsigned procedure = 4);
std::string softwareError(int entry, std::uint32_t code, unsigned module, unsigned site);
/// A failure that must not reach the caller.
std::string secondaryCommit(int entry);
/// A capture of first-failure data that finds none.
std::string capture(const char* handle = "h1");

/// The lines of a failed operation on an open handle, without first-failure data; a deadlock ends in its commit.
std::string failureLines(int entry, const Failure& failure, const char* handle = "h1");

} // namespace expected
