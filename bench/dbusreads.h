/// The same read through D-Bus.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "bench/servers.h"

struct sd_bus;

namespace kest::bench
{

/// A bus daemon of the benchmark's own.
class privateBus
{
public:
    [[nodiscard]] static bool isInstalled();
    /// @param folder  for its socket and its configuration
    explicit privateBus(const std::filesystem::path& folder);
    [[nodiscard]] const std::string& address() const { return m_address; }

private:
    std::string m_address;
    std::unique_ptr<process> m_daemon;
};

/// A D-Bus service with one method, which opens the copy, reads what is asked for and closes the copy; and a client of
/// it.
class dbusReads
{
public:
    /// Client and service have a connection of their own, with no bus in between.
    explicit dbusReads(const std::filesystem::path& copy);
    /// They meet on a bus.
    dbusReads(const std::filesystem::path& copy, const privateBus& bus);
    dbusReads(const dbusReads&) = delete;
    dbusReads& operator=(const dbusReads&) = delete;
    ~dbusReads();

    /// Reads once; ends the process when fewer bytes come.
    void read(unsigned offset, unsigned length);

private:
    std::unique_ptr<process> m_service;
    const char* m_destination = nullptr; ///< the service's name on the bus
    sd_bus* m_bus = nullptr;
};

} // namespace kest::bench
