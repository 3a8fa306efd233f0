/// Persisted copies whose files a test puts in place, and what the VPD service serves of them.
#pragma once

#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/vpd/copies.h"
#include "tests/host/host_support.h"

namespace kest::test
{

using Bytes = std::vector<std::uint8_t>;

/// Bytes of which no two blocks are alike.
Bytes pattern(std::size_t count);

class ServedCopies : public testing::Test
{
protected:
    ServedCopies();

    [[nodiscard]] static std::string name(std::uint32_t number) { return "qorn/P3_Root/" + std::to_string(number); }
    [[nodiscard]] std::string path(std::uint32_t number) const { return folder.state(name(number)); }
    void put(std::uint32_t number, const Bytes& file) const;
    [[nodiscard]] Bytes fileOf(std::uint32_t number) const;
    /// Changes one bit of a copy's file.
    void flip(std::uint32_t number, std::size_t bit) const;

    /// Reads; keeps the entry. @return the bytes
    Bytes read(unsigned int number, unsigned int wanted, unsigned int offset);
    /// Writes; keeps the entry. @return whether that worked
    bool write(unsigned int number, const Bytes& bytes, unsigned int offset);
    /// Return code and user data 4 of the last entry: why, and where. Empty when there is none.
    [[nodiscard]] std::vector<std::uint32_t> why() const;
    /// The entry's user details of a subsection.
    [[nodiscard]] std::string textOf(std::uint8_t subsection) const;

    HostFolder folder;
    std::unique_ptr<ErrlEntry> entry;
};

} // namespace kest::test
