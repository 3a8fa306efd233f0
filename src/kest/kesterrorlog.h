/// The error-details record, and the one way from a failure to an error log entry.
///
/// A function that can fail starts with an empty record. Where it fails, it traces and describes the failure. At its
/// single exit it calls kest_logError(), which ignores a record without flags.
#pragma once

#include <cstdint>
#include <optional>

#include "kest/reasons.h"
#include "platform/errl.h"
#include "platform/mern.h"

namespace kest
{

/// What a failing function knows. Value-initialise it: every flag starts cleared. kest_logError() clears each flag once
/// its item is added.
struct kest_errorDetails {
    std::uint8_t logSrc; ///< create the entry, or add an SRC, from the next eight fields
    std::uint8_t commitEntry; ///< after all else commit the entry with `commitAction` and delete it
    std::uint32_t moduleId; ///< the failing function; its low 8 bits are logged
    std::uint32_t reasonCode; ///< its low 16 bits are logged
    epubSubSystem subsystem;
    std::uint32_t userData1;
    std::uint32_t userData2;
    std::uint32_t userData3;
    std::uint32_t userData4;
    std::uint16_t commitAction;
    std::uint8_t callout1InUse;
    srciPriority callout1Priority;
    epubProcedureID callout1Procedure;
    std::uint8_t callout2InUse;
    srciPriority callout2Priority;
    epubProcedureID callout2Procedure;
    std::uint8_t callout3InUse;
    srciPriority callout3Priority;
    epubProcedureID callout3Procedure;
    std::uint8_t setReturnCode;
    std::uint32_t returnCode;
    std::uint8_t usrDtlsInUse;
    std::uint8_t usrDtlsOwned; ///< the block came from array new, and is deleted once added; to be set with each block
    const std::uint8_t* usrDtlsData;
    std::uint32_t usrDtlsSize; ///< bytes; its low 16 bits are logged
    std::uint8_t usrDtlsVersion;
    std::uint8_t usrDtlsSubsection;
    std::uint8_t swErrInUse;
    std::uint32_t swErrReturnCode;
    std::uint32_t swErrWord1; ///< module number; its low 16 bits are logged
    std::uint32_t swErrWord2; ///< failure site; its low 16 bits are logged
    std::uint8_t fruCalloutInUse;
    std::uint32_t fruCalloutId; ///< its low 16 bits are logged
    srciPriority fruCalloutPriority;
};

/// Turns the record into calls on the error log: creates the entry or extends it, adds the items whose flags are set,
/// and commits and deletes it when asked to. Without an entry and without `logSrc` the rest of the record is ignored.
/// @param[in,out] entry  the request's entry, null while nothing has failed
/// @param sourceId  the source unit's identification, added to each SRC; null adds none
void kest_logError(ErrlEntry*& entry, kest_errorDetails* details, const char* sourceId);

/// Asks for an SRC: sets `logSrc`, the site, and the four user data words.
void kest_requestSrc(kest_errorDetails& details, std::uint32_t moduleId, std::uint32_t reasonCode,
                     epubSubSystem subsystem, std::uint32_t userData1 = 0, std::uint32_t userData2 = 0,
                     std::uint32_t userData3 = 0, std::uint32_t userData4 = 0);

/// Asks for a procedure callout in the first free of the three slots; a fourth is dropped.
void kest_addCallout(kest_errorDetails& details, epubProcedureID procedure = EPUB_PROCEDURE_SOFTWARE);

/// Asks for the entry's return code to be set.
void kest_setReturnCode(kest_errorDetails& details, std::uint32_t returnCode);

/// Asks for user details (version 1). @param owned  the block came from array new and kest_logError() deletes it
void kest_attachUserDetails(kest_errorDetails& details, const void* data, std::uint32_t size, std::uint8_t subsection,
                            bool owned = false);

/// Asks for user details that are a text, without its terminator.
void kest_attachText(kest_errorDetails& details, const char* text, std::uint8_t subsection, bool owned = false);

/// Asks for a software-error section: the failing call's return code, the module and the failure site.
void kest_attachSoftwareError(kest_errorDetails& details, std::uint32_t returnCode, std::uint32_t moduleId,
                              std::uint32_t site);

/// Asks for a FRU callout of priority 1.
void kest_attachFruCallout(kest_errorDetails& details, std::uint32_t fruId);

/// The usual failure in one call: an SRC, one procedure callout, and the return code 0x80000000 | reason.
void kest_describeFailure(kest_errorDetails& details, std::uint32_t moduleId, std::uint32_t reasonCode,
                          std::uint32_t userData1 = 0, std::uint32_t userData2 = 0, std::uint32_t userData3 = 0,
                          std::uint32_t userData4 = 0);

/// errno values of argument and software faults: EINTR, EBADF, EFAULT, ENODEV, EINVAL, ENOSYS. They are blamed on
/// software (0x81) and carry the class bit 0x80000000 in the return code; any other is the device's (0x55), without a
/// class bit.
bool kest_isSoftwareErrno(int error);

/// @return the user data word 1 of the entry's first SRC (the word at index 4 of its hex data), which is the `errno` of
/// a failed transfer; nothing when the entry is null, has no SRC, or the SRC has fewer than five words.
std::optional<std::uint32_t> kest_failedErrno(const ErrlEntry* entry);

/// Disposes of a failure that must not reach the caller: collects 250 bytes of the trace buffer "kest" into the entry,
/// commits it with action 0x4000, deletes it and sets it to null. Null is ignored.
void kest_commitSecondary(ErrlEntry*& entry);

/// Moves an entry into a new one and deletes the old one. Without memory for a new entry it returns the old one.
/// @param[in,out] from  not null; null afterwards
/// @return the entry, the caller's
ErrlEntry* kest_takeOver(ErrlEntry*& from);

/// Adds the first SRC of `from`, with its creator, to `to`; neither is deleted. An entry without SRC adds nothing.
void kest_mergeFirstSrc(ErrlEntry& to, const ErrlEntry& from);

} // namespace kest
