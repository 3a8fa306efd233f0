/// Checks of locks of device addresses.
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/check/run.h"

namespace kest::check
{
namespace
{

constexpr std::uint32_t longMs = 20000; ///< longer than any of these locks is held
constexpr std::uint32_t shortMs = 500;
constexpr std::uint32_t spentMs = 50; ///< of a wait that has to last so long

/// Two openings of the memory's bus.
struct lockCheck {
    run& made;
    bool ready = made.has("SEEPROM", made.port.memory.path != nullptr);
    openDevice first{ready ? made.port.memory.path : ""};
    openDevice second{ready ? made.port.memory.path : ""};

    explicit lockCheck(run& run) : made(run)
    {
        ready = ready && run.holds("the bus can be opened twice", first.valid() && second.valid());
    }
    int take(openDevice& device, std::uint32_t timeoutMs = 0) const
    {
        mern_iic_lock lock{MERN_LOCK_HUB, made.port.memory.address, timeoutMs};
        return mern_iic_config(device.handle, MERN_CONFIG_SET, WOBU_IIC_LOCK, &lock, sizeof lock);
    }
    int release(openDevice& device) const
    {
        mern_iic_lock lock{MERN_LOCK_HUB, made.port.memory.address, 0};
        return mern_iic_config(device.handle, MERN_CONFIG_SET, WOBU_IIC_UNLOCK, &lock, sizeof lock);
    }
    /// A register device's record, which is big-endian on every host.
    int asRegisterDevice(openDevice& device, wobu_iic_cfg_t item) const
    {
        const std::uint16_t address = made.port.memory.address;
        std::array<std::uint8_t, sizeof(mern_iic_lock)> record{
            0, 2, static_cast<std::uint8_t>(address >> 8), static_cast<std::uint8_t>(address), 0, 0, 0, 1};
        return mern_iic_config(device.handle, MERN_CONFIG_SET, item, record.data(), record.size());
    }
};

void excludes(run& run)
{
    lockCheck check(run);
    if (!check.ready) {
        return;
    }
    run.same("result of a lock", 0, check.take(check.first));
    run.fails("another device's lock of the same address", EBUSY, check.take(check.second));
    run.same("result of the unlock", 0, check.release(check.first));
    run.same("result of the other's lock after the unlock", 0, check.take(check.second));
    check.release(check.second);
}

void deadlock(run& run)
{
    lockCheck check(run);
    if (!check.ready) {
        return;
    }
    run.same("result of a lock", 0, check.take(check.first));
    run.fails("the same device's second lock", EDEADLK, check.take(check.first, shortMs));
    run.same("result of the unlock", 0, check.release(check.first));
    run.fails("an unlock of what is not held", EINVAL, check.release(check.first));
    check.take(check.first);
    run.fails("an unlock of another's lock", EINVAL, check.release(check.second));
    check.release(check.first);
}

void kinds(run& run)
{
    lockCheck check(run);
    if (!check.ready) {
        return;
    }
    run.same("result of a register device's lock", 0, check.asRegisterDevice(check.first, WOBU_IIC_LOCK));
    run.fails("a hub's lock of the same address", EBUSY, check.take(check.second));
    run.same("result of a register device's unlock", 0, check.asRegisterDevice(check.first, WOBU_IIC_UNLOCK));
    run.same("result of the hub's lock after it", 0, check.take(check.second));
    run.fails("a register device's lock after that", EBUSY, check.asRegisterDevice(check.first, WOBU_IIC_LOCK));
    check.release(check.second);
}

void wrongLocks(run& run)
{
    lockCheck check(run);
    if (!check.ready) {
        return;
    }
    for (mern_iic_lock lock :
         {mern_iic_lock{7, 0xA0, 0}, mern_iic_lock{MERN_LOCK_HUB, 0xA1, 0}, mern_iic_lock{MERN_LOCK_HUB, 0, 0}}) {
        run.fails("a lock of another kind or address", EINVAL,
                  mern_iic_config(check.first.handle, MERN_CONFIG_SET, WOBU_IIC_LOCK, &lock, sizeof lock));
        run.fails("reading a lock", EINVAL,
                  mern_iic_config(check.first.handle, MERN_CONFIG_READ, WOBU_IIC_LOCK, &lock, sizeof lock));
    }
}

void closeEnds(run& run)
{
    lockCheck check(run);
    if (!check.ready) {
        return;
    }
    run.same("result of a lock", 0, check.take(check.first));
    check.first.close();
    run.same("result of the other's lock after the close", 0, check.take(check.second));
    check.release(check.second);
}

/// A wait for a lock that nobody lets go.
void waitInVain(lockCheck& check)
{
    const auto start = std::chrono::steady_clock::now();
    const int result = check.take(check.second, spentMs);
    check.made.fails("a lock that is held for longer", EBUSY, result);
    check.made.holds("the call waits for its time",
                     std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(spentMs));
}

void threadWaits(run& run)
{
    lockCheck check(run);
    if (!check.ready) {
        return;
    }
    run.same("result of a lock", 0, check.take(check.first));
    // the main thread may be first with the unlock below: that the thread can wait is shown before
    std::thread([&check] { waitInVain(check); }).join();
    int result = -1;
    std::thread waiting([&] { result = check.take(check.second, longMs); });
    run.same("result of the unlock while a thread may wait", 0, check.release(check.first));
    waiting.join();
    run.same("result of the thread's lock", 0, result);
    run.fails("the first one's lock meanwhile", EBUSY, check.take(check.first));
    check.release(check.second);
}

void excludesThreads(run& run)
{
    lockCheck check(run);
    if (!check.ready) {
        return;
    }
    std::atomic<int> inside{0};
    std::array<int, 3> wrong{};
    std::vector<std::thread> threads;
    threads.reserve(wrong.size());
    for (int& own : wrong) {
        threads.emplace_back([&check, &inside, &own] {
            openDevice device(check.made.port.memory.path);
            for (int round = 0; round < 50; ++round) {
                if (check.take(device, longMs) != 0) {
                    ++own;
                    continue;
                }
                const int before = ++inside;
                std::this_thread::yield();
                own += before == 1 && inside == 1 ? 0 : 1;
                --inside;
                check.release(device);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    run.same("times that a thread had no lock, or was not alone", 0, wrong[0] + wrong[1] + wrong[2]);
}

constexpr std::array checks{
    check{"locks: one device at a time has an address", excludes},
    check{"locks: a second lock is EDEADLK, an unlock without one EINVAL", deadlock},
    check{"locks: both kinds exclude each other; one is big-endian on every host", kinds},
    check{"locks: other kinds and addresses are EINVAL", wrongLocks},
    check{"locks: a close ends the device's locks", closeEnds},
    check{"locks: a thread waits for a lock and gets it", threadWaits},
    check{"locks: threads exclude one another", excludesThreads},
};

} // namespace

std::span<const check> lockChecks() { return checks; }

} // namespace kest::check
