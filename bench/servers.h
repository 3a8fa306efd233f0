/// Servers that the benchmarks measure, each in a process of its own.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <sys/types.h>

namespace kest::bench
{

/// Prints a line and ends the process.
[[noreturn]] void fail(const std::string& what);

/// A child that runs `body`, until it is destroyed.
class process
{
public:
    explicit process(const std::function<void()>& body);
    process(const process&) = delete;
    process& operator=(const process&) = delete;
    ~process();
    [[nodiscard]] double residentKib() const;

private:
    pid_t m_pid;
};

/// What requests read: file mode reads the copy, and never opens the device.
constexpr const char* location = "sim:planar,L,2C0256,A0";

/// Fills an empty state folder of a service in file mode, where copy 0, which serves messages, holds 32 KiB.
void makeState(const std::filesystem::path& state);
std::filesystem::path copyOf(const std::filesystem::path& state);
std::filesystem::path serviceSocketOf(const std::filesystem::path& state);

/// Starts kestd, which serves at serviceSocketOf() when this returns.
std::unique_ptr<process> startService(const std::filesystem::path& state);

/// Waits until somebody accepts at a socket.
void awaitServer(const std::filesystem::path& socket);

} // namespace kest::bench
