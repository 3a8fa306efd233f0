/// The mapped state file of a machine, and the locks on it.
///
/// It holds two records for each bus, and a byte that says which one is current. A transaction writes the other record
/// and then turns the byte, so that a process killed at any instruction leaves the state from before or after the
/// transaction. Numbers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kest::sim
{

/// Held while a machine is opened; forks wait for it.
std::mutex& openingMutex();

class stateFile
{
public:
    /// Opens or makes the file. Throws std::runtime_error.
    /// @param recordBytes  of each bus's record
    stateFile(std::filesystem::path file, std::span<const std::size_t> recordBytes);
    ~stateFile();
    stateFile(const stateFile&) = delete;
    stateFile& operator=(const stateFile&) = delete;

    /// Holds a bus, the header, or all, against the other threads and processes. Waits as long as it takes.
    class hold
    {
    public:
        hold(stateFile& of, std::size_t bus);
        explicit hold(stateFile& of);
        ~hold();
        hold(const hold&) = delete;
        hold& operator=(const hold&) = delete;
        /// Whether it has the lock.
        [[nodiscard]] bool held() const { return m_locked; }

    private:
        stateFile& m_file;
        std::size_t m_first, m_count;
        bool m_locked;
    };

    /// @return whether the file is still there, whole, and this machine's. Ask under a lock.
    [[nodiscard]] bool usable(std::uint64_t layoutMark) const;
    /// The same without a lock, as the file is at some moment of the call; and whether it still has its name. Another file
    /// in its place is what everybody else uses.
    [[nodiscard]] bool seemsUsable(std::uint64_t layoutMark) const;
    /// What is damaged in a file that is not usable; empty when nothing is: it is new, was never finished, or is of
    /// another machine. Ask under the lock of all.
    [[nodiscard]] std::string damage(std::uint64_t layoutMark) const;
    /// Keeps a copy of the file. @return its name. Throws std::runtime_error.
    [[nodiscard]] std::filesystem::path setAside() const;
    /// Makes the file anew, all zero, for a layout. It is usable once seal() has been called. Both under the lock of
    /// all.
    void renew(std::uint64_t layoutMark);
    void seal();

    [[nodiscard]] std::span<std::uint8_t> current(std::size_t bus) { return record(bus, active(bus) & 1U); }
    [[nodiscard]] std::span<std::uint8_t> spare(std::size_t bus) { return record(bus, ~active(bus) & 1U); }
    void turn(std::size_t bus);

    [[nodiscard]] std::uint64_t faultMark() const;
    /// The same without a lock, as the file is at some moment of the call; none when it is too short.
    [[nodiscard]] std::optional<std::uint64_t> seenFaultMark() const;
    /// Under the lock of all.
    void setFaultMark(std::uint64_t mark);
    /// The next number of a fault, never 0. Under the lock of all, or that of the header.
    std::uint32_t nextFaultNumber();
    /// What hold takes for the header, as if it were one more bus.
    [[nodiscard]] std::size_t headerLock() const { return m_blocks.size(); }

    static constexpr std::size_t longestPath = 1900;
    [[nodiscard]] std::string wavePath(std::size_t bus) const;
    /// @param path  at most longestPath bytes
    void setWavePath(std::size_t bus, const std::string& path);

private:
    struct block {
        std::size_t at;
        std::size_t recordBytes;
    };
    void beforeFork();
    void afterFork(bool child);
    static void forkHandlers();
    bool lockFile(std::size_t first, std::size_t count, bool lock) const;
    [[nodiscard]] bool isWhole() const;
    [[nodiscard]] bool isInPlace() const;
    [[nodiscard]] std::uint8_t& active(std::size_t bus) const { return m_mapped[m_blocks[bus].at]; }
    void examine();
    [[nodiscard]] bool copyTo(const std::filesystem::path& file) const;
    [[nodiscard]] std::span<std::uint8_t> record(std::size_t bus, unsigned which) const;

    std::filesystem::path m_path;
    std::vector<block> m_blocks;
    std::size_t m_sizeBytes = 0;
    int m_descriptor = -1;
    dev_t m_device = 0; ///< with the number: which file is open
    ino_t m_number = 0;
    std::string m_reopenPath; ///< names `m_descriptor` for a forked child
    std::uint8_t* m_mapped = nullptr;
    std::vector<std::unique_ptr<std::mutex>> m_mutexes; ///< of each bus, and of the header
    friend struct forkRegistry;
};

} // namespace kest::sim
