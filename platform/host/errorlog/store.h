/// The host's error log as its tools see it: entries are listed, checked and cleared.
///
/// The store is the database `errors.db` in the state folder; entries that it could not take wait in a spool file and
/// are listed with it. docs/host-services.md describes both. Reading needs no permission to write. Texts come from
/// devices and clients: when kest stored them they were valid UTF-8 without control characters other than line ends and
/// tabs, but a program that shows them escapes them all the same.
#pragma once

#include <string>
#include <vector>

#include "platform/host/errorlog/record.h"

namespace kest::host
{

struct entryList {
    std::vector<loggedEntry> entries; ///< latest first
    std::string error; ///< why entries may be missing; empty when none are
};

/// Finds entries. No log at all is an empty list without an error. An entry committed twice is there twice.
entryList listEntries(const entryFilter& filter = {});

/// Deletes every entry. A damaged database is set aside as `errors.db.damaged`, and a new one begins.
/// @return why it failed; empty when it is done
std::string clearEntries();

/// Reads the whole store and looks for damage. @return what is wrong; empty when nothing is
std::string checkStore();

} // namespace kest::host
