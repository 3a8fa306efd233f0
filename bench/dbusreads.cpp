#include "bench/dbusreads.h"

#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vector>

namespace kest::bench
{
namespace
{

constexpr const char* path = "/device";
constexpr const char* interface = "bench.Device";
constexpr const char* serviceName = "bench.Service";
constexpr const char* daemonProgram = "/usr/bin/dbus-daemon";

int readCopy(sd_bus_message* request, void* copy, sd_bus_error*)
{
    const char* device = nullptr;
    unsigned offset = 0;
    unsigned length = 0;
    if (const int error = sd_bus_message_read(request, "suu", &device, &offset, &length); error < 0) {
        return error;
    }
    std::vector<unsigned char> bytes(length);
    const int file = open(static_cast<const std::filesystem::path*>(copy)->c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t got = pread(file, bytes.data(), length, offset);
    close(file);
    sd_bus_message* reply = nullptr;
    int error = sd_bus_message_new_method_return(request, &reply);
    if (error >= 0) {
        error = sd_bus_message_append_array(reply, 'y', bytes.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
    }
    if (error >= 0) {
        error = sd_bus_send(nullptr, reply, nullptr);
    }
    sd_bus_message_unref(reply);
    return error;
}

const sd_bus_vtable methods[] = {SD_BUS_VTABLE_START(0),
                                 SD_BUS_METHOD("Read", "suu", "ay", readCopy, SD_BUS_VTABLE_UNPRIVILEGED),
                                 SD_BUS_VTABLE_END};

void check(int result)
{
    if (result < 0) {
        fail("D-Bus: " + std::to_string(result));
    }
}

/// One end of a connection with no bus in between.
sd_bus* startDirect(int descriptor, bool asServer)
{
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus));
    check(sd_bus_set_fd(bus, descriptor, descriptor));
    if (asServer) {
        sd_id128_t id;
        check(sd_id128_randomize(&id));
        check(sd_bus_set_server(bus, 1, id));
    }
    check(sd_bus_start(bus));
    return bus;
}

sd_bus* startClient(const std::string& address)
{
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus));
    check(sd_bus_set_address(bus, address.c_str()));
    check(sd_bus_set_bus_client(bus, 1));
    check(sd_bus_start(bus));
    return bus;
}

void serve(sd_bus* bus, const std::filesystem::path& copy, bool named)
{
    auto copyPath = copy;
    check(sd_bus_add_object_vtable(bus, nullptr, path, interface, methods, &copyPath));
    if (named) {
        check(sd_bus_request_name(bus, serviceName, 0));
    }
    for (;;) {
        const int worked = sd_bus_process(bus, nullptr);
        if (worked < 0 || (worked == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)) {
            return;
        }
    }
}

} // namespace

bool privateBus::isInstalled() { return access(daemonProgram, X_OK) == 0; }

privateBus::privateBus(const std::filesystem::path& folder) : m_address("unix:path=" + (folder / "bus").string())
{
    const std::filesystem::path configuration = folder / "bus.conf";
    std::ofstream(configuration) << "<busconfig><listen>" << m_address
                                 << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/>"
                                    "<allow own=\"*\"/><allow send_destination=\"*\" eavesdrop=\"true\"/><allow "
                                    "eavesdrop=\"true\"/></policy></busconfig>";
    m_daemon = std::make_unique<process>([&] {
        const std::string option = "--config-file=" + configuration.string();
        execl(daemonProgram, "dbus-daemon", "--nofork", "--nosyslog", option.c_str(), nullptr);
    });
    awaitServer(folder / "bus");
}

dbusReads::dbusReads(const std::filesystem::path& copy)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        fail("no socket pair");
    }
    m_service = std::make_unique<process>([&] {
        close(ends[1]);
        serve(startDirect(ends[0], true), copy, false);
    });
    close(ends[0]);
    m_bus = startDirect(ends[1], false);
}

dbusReads::dbusReads(const std::filesystem::path& copy, const privateBus& bus)
    : m_service(std::make_unique<process>([&] { serve(startClient(bus.address()), copy, true); })),
      m_destination(serviceName), m_bus(startClient(bus.address()))
{
    int known = 0;
    while (known == 0) {
        sd_bus_message* reply = nullptr;
        check(sd_bus_call_method(m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                 "NameHasOwner", nullptr, &reply, "s", serviceName));
        check(sd_bus_message_read(reply, "b", &known));
        sd_bus_message_unref(reply);
    }
}

dbusReads::~dbusReads() { sd_bus_flush_close_unref(m_bus); }

void dbusReads::read(unsigned offset, unsigned length)
{
    sd_bus_message* reply = nullptr;
    check(sd_bus_call_method(m_bus, m_destination, path, interface, "Read", nullptr, &reply, "suu", location, offset,
                             length));
    const void* bytes = nullptr;
    std::size_t got = 0;
    check(sd_bus_message_read_array(reply, 'y', &bytes, &got));
    sd_bus_message_unref(reply);
    if (got != length) {
        fail("D-Bus: " + std::to_string(got) + " bytes");
    }
}

} // namespace kest::bench
