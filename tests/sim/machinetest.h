/// A machine in a folder of its own, and a few verbs on its bus.
#pragma once

#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "sim/machine.h"

namespace kest::sim::test
{

using Bytes = std::vector<std::uint8_t>;

/// How a transaction ended, and what was read.
struct Answer {
    outcome end = outcome::done;
    Bytes data;
    std::size_t segment = 0, bytesMoved = 0;
    std::uint64_t busTimeNs = 0;
};

class Folder
{
public:
    Folder();
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    void put(const std::string& name, const std::string& text) const;
    [[nodiscard]] std::string text(const std::string& name) const;
    [[nodiscard]] Bytes content(const std::string& name) const
    {
        const std::string all = text(name);
        return {all.begin(), all.end()};
    }

    std::filesystem::path path;
};

/// Verbs on one bus.
class User
{
public:
    explicit User(std::shared_ptr<bus> on) : planar{std::move(on)} {}

    Answer write(std::uint8_t address, Bytes sent)
    {
        segment part{address, direction::write, sent, false};
        return run({&part, 1}, {});
    }
    Answer read(std::uint8_t address, std::size_t length)
    {
        Bytes data(length);
        segment part{address, direction::read, data, false};
        Answer got = run({&part, 1}, {});
        got.data = data;
        return got;
    }
    /// Write, repeated START, read: one transaction.
    Answer readAt(std::uint8_t address, Bytes sent, std::size_t length)
    {
        Bytes data(length);
        segment parts[2] = {{address, direction::write, sent, false}, {address, direction::read, data, false}};
        Answer got = run(parts, {});
        got.data = data;
        return got;
    }
    Answer run(std::span<segment> parts, Bytes data)
    {
        const transferResult result = planar->transfer(parts, 0);
        return {result.end, std::move(data), result.segment, result.bytesMoved, result.busTimeNs};
    }
    outcome probe(std::uint8_t address) { return planar->probe(address, 0).end; }
    /// Asks until the address is acknowledged, or `most` times.
    bool asksUntilAnswered(std::uint8_t address, unsigned most)
    {
        unsigned asked = 0;
        while (asked < most && probe(address) != outcome::done) {
            ++asked;
        }
        return asked < most;
    }
    void idleMs(std::uint64_t milliseconds) { planar->idle(milliseconds * 1'000'000); }
    /// A write and the time that its cycle takes.
    outcome store(std::uint8_t address, Bytes sent)
    {
        const outcome end = write(address, std::move(sent)).end;
        idleMs(40);
        return end;
    }

    std::shared_ptr<bus> planar;
};

/// The bus "planar" of a machine with the chips given as TOML.
class MachineTest : public ::testing::Test
{
protected:
    void power(const std::string& chips)
    {
        home.put("machine.toml", "[[bus]]\nname = \"planar\"\n" + chips);
        open();
    }
    void open()
    {
        machine = openMachine(home.path, false);
        on = std::make_unique<User>(machine->findBus("planar", ""));
    }
    static std::string chip(const std::string& type, const std::string& address, const std::string& more = {})
    {
        return "[[chip]]\nbus = \"planar\"\ntype = \"" + type + "\"\naddress = " + address + "\n" + more + "\n";
    }
    std::uint32_t value(const std::string& chipLabel, const std::string& name);
    std::string meaning(const std::string& chipLabel, const std::string& name);
    std::uint32_t fault(machine::fault what) { return machine->addFault(what); }

    Folder home;
    std::shared_ptr<sim::machine> machine;
    std::unique_ptr<User> on;
};

/// `count` bytes counting up from `first`.
Bytes counting(std::size_t count, std::uint8_t first = 0);

Bytes operator+(Bytes left, const Bytes& right);

} // namespace kest::sim::test
