#include "sim/statefile.h"

#include "base/descriptor.h"
#include "base/quietwrites.h"
#include "sim/statefields.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kest::sim
{

namespace
{

constexpr std::size_t headerBytes = 4096;
// of it, those with fields
constexpr std::size_t readHeaderBytes = 64;
constexpr std::size_t blockHeaderBytes = 2048;
// the last is the version
constexpr std::array<std::uint8_t, 8> magic{'k', 'e', 's', 't', 's', 'i', 'm', 6};

struct header {
    std::array<std::uint8_t, 8> mark{};
    std::uint64_t layout = 0, size = 0, faults = 0;
    std::uint32_t faultNumbers = 0;

    void exchange(stateFields& fields)
    {
        fields.bytes(mark);
        fields.numbers(layout, size, faults, faultNumbers);
    }
};

header readHeader(std::span<std::uint8_t> bytes)
{
    header read;
    stateFields fields{bytes, stateFields::way::load};
    read.exchange(fields);
    return read;
}

// Nothing is read through the mapping: another process may be cutting the file.
std::optional<header> seenHeader(int file)
{
    std::array<std::uint8_t, readHeaderBytes> begin{};
    if (pread(file, begin.data(), begin.size(), 0) != static_cast<ssize_t>(begin.size())) {
        return std::nullopt;
    }
    return readHeader(begin);
}

bool isOf(const header& read, std::uint64_t layoutMark, std::size_t sizeBytes)
{
    return read.mark == magic && read.layout == layoutMark && read.size == sizeBytes;
}

void writeHeader(std::uint8_t* mapped, header& written)
{
    stateFields fields{{mapped, headerBytes}, stateFields::way::store};
    written.exchange(fields);
}

[[noreturn]] void fail(const std::filesystem::path& file, const char* what)
{
    throw std::system_error{errno, std::generic_category(), file.string() + ": " + what};
}

} // namespace

// A forked child has the parent's open file description, and with it the parent's locks: it needs one of its own. The
// mutexes are held during the fork, so that no transaction is under way then.
struct forkRegistry {
    // taken before the other
    std::mutex opening;
    std::mutex mutex;
    std::vector<stateFile*> files;

    static forkRegistry& instance()
    {
        // never destroyed: forks happen in exit handlers, too
        static auto* const registry = new forkRegistry;
        return *registry;
    }
    static void prepare()
    {
        instance().opening.lock();
        instance().mutex.lock();
        for (auto* file : instance().files) {
            file->beforeFork();
        }
    }
    static void parent() { after(false); }
    static void child() { after(true); }
    static void after(bool child)
    {
        for (auto* file : instance().files) {
            file->afterFork(child);
        }
        instance().mutex.unlock();
        instance().opening.unlock();
    }
    forkRegistry() { pthread_atfork(prepare, parent, child); }
};
// Before every thread: a registry that was being made would stay so in a child forked meanwhile.
[[maybe_unused]] static const forkRegistry& madeAtLoad = forkRegistry::instance();

std::mutex& openingMutex() { return forkRegistry::instance().opening; }

void stateFile::beforeFork()
{
    for (auto& mutex : m_mutexes) {
        mutex->lock();
    }
}

// The child makes only calls that a signal handler may make.
void stateFile::afterFork(bool child)
{
    if (child) {
        const int own = ownDescriptor(open(m_reopenPath.c_str(), O_RDWR | O_CLOEXEC));
        if (own < 0 || dup3(own, m_descriptor, O_CLOEXEC) < 0) {
            m_mapped = nullptr;
        }
        if (own >= 0) {
            close(own);
        }
    }
    for (auto& mutex : m_mutexes) {
        mutex->unlock();
    }
}

stateFile::stateFile(std::filesystem::path file, std::span<const std::size_t> recordBytes) : m_path{std::move(file)}
{
    m_sizeBytes = headerBytes;
    for (const std::size_t bytes : recordBytes) {
        m_blocks.push_back({m_sizeBytes, bytes});
        m_sizeBytes += blockHeaderBytes + 2 * bytes;
        m_mutexes.push_back(std::make_unique<std::mutex>());
    }
    m_mutexes.push_back(std::make_unique<std::mutex>());
    m_descriptor = ownDescriptor(open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (m_descriptor < 0) {
        fail(m_path, "state file");
    }
    m_reopenPath = "/proc/self/fd/" + std::to_string(m_descriptor);
    examine();
    void* const at = mmap(nullptr, m_sizeBytes, PROT_READ | PROT_WRITE, MAP_SHARED, m_descriptor, 0);
    if (at == MAP_FAILED) {
        close(m_descriptor);
        fail(m_path, "state file");
    }
    m_mapped = static_cast<std::uint8_t*>(at);
    const std::scoped_lock lock{forkRegistry::instance().mutex};
    forkRegistry::instance().files.push_back(this);
}

// Notes which file it is, and reserves its holes: a sparse copy of it has some. On a full disk, a write to one of them
// would end the process. The file keeps its size: nobody holds it here, and another process may have made it anew for a
// smaller machine since fstat().
void stateFile::examine()
{
    struct stat found {
    };
    if (fstat(m_descriptor, &found) != 0) {
        return;
    }
    m_device = found.st_dev;
    m_number = found.st_ino;
    if (std::cmp_equal(found.st_size, m_sizeBytes) &&
        fallocate(m_descriptor, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(m_sizeBytes)) != 0 &&
        (errno == ENOSPC || errno == EDQUOT)) {
        const int error = errno;
        close(m_descriptor);
        errno = error;
        fail(m_path, "state file");
    }
}

stateFile::~stateFile()
{
    {
        const std::scoped_lock lock{forkRegistry::instance().mutex};
        std::erase(forkRegistry::instance().files, this);
    }
    if (m_mapped != nullptr) {
        munmap(m_mapped, m_sizeBytes);
    }
    close(m_descriptor);
}

bool stateFile::lockFile(std::size_t first, std::size_t count, bool lock) const
{
    struct flock range {
    };
    range.l_type = static_cast<short>(lock ? F_WRLCK : F_UNLCK);
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(first);
    range.l_len = static_cast<off_t>(count);
    int result = 0;
    do {
        result = fcntl(m_descriptor, F_OFD_SETLKW, &range);
    } while (result < 0 && errno == EINTR);
    return result == 0;
}

stateFile::hold::hold(stateFile& of, std::size_t bus) : m_file{of}, m_first{bus}, m_count{1}
{
    m_file.m_mutexes[bus]->lock();
    m_locked = m_file.m_mapped != nullptr && m_file.lockFile(m_first, m_count, true);
}

// The range has no end, so that layouts with more buses are held, too.
stateFile::hold::hold(stateFile& of) : m_file{of}, m_first{0}, m_count{0}
{
    for (auto& mutex : m_file.m_mutexes) {
        mutex->lock();
    }
    m_locked = m_file.m_mapped != nullptr && m_file.lockFile(m_first, m_count, true);
}

stateFile::hold::~hold()
{
    if (m_locked) {
        m_file.lockFile(m_first, m_count, false);
    }
    if (m_count == 0) {
        for (auto& mutex : m_file.m_mutexes) {
            mutex->unlock();
        }
    } else {
        m_file.m_mutexes[m_first]->unlock();
    }
}

bool stateFile::isWhole() const
{
    struct stat now {
    };
    return m_mapped != nullptr && fstat(m_descriptor, &now) == 0 && now.st_nlink != 0 &&
           std::cmp_equal(now.st_size, m_sizeBytes);
}

bool stateFile::isInPlace() const
{
    struct stat now {
    };
    return m_mapped != nullptr && lstat(m_path.c_str(), &now) == 0 && now.st_dev == m_device &&
           now.st_ino == m_number && std::cmp_equal(now.st_size, m_sizeBytes);
}

bool stateFile::usable(std::uint64_t layoutMark) const
{
    return isWhole() && isOf(readHeader({m_mapped, headerBytes}), layoutMark, m_sizeBytes);
}

bool stateFile::seemsUsable(std::uint64_t layoutMark) const
{
    const auto seen = seenHeader(m_descriptor);
    return isInPlace() && seen && isOf(*seen, layoutMark, m_sizeBytes);
}

std::string stateFile::damage(std::uint64_t layoutMark) const
{
    struct stat now {
    };
    std::array<std::uint8_t, readHeaderBytes> begin{};
    if (fstat(m_descriptor, &now) != 0 || now.st_size == 0) {
        return {};
    }
    if (pread(m_descriptor, begin.data(), begin.size(), 0) < 0) {
        return "cannot be read";
    }
    const header read = readHeader(begin);
    const bool ours = std::equal(magic.begin(), magic.end() - 1, read.mark.begin());
    const bool version = read.mark.back() == magic.back();
    if (read.mark == decltype(read.mark){} || (ours && !version)) {
        return {};
    }
    if (!ours) {
        return "is no state file";
    }
    if (std::cmp_not_equal(now.st_size, read.size) || (read.layout == layoutMark && read.size != m_sizeBytes)) {
        return "has another size than it should";
    }
    return {};
}

std::filesystem::path stateFile::setAside() const
{
    std::filesystem::path kept = m_path.string() + ".damaged";
    if (!copyTo(kept)) {
        throw std::system_error{errno, std::generic_category(),
                                m_path.string() + ": is damaged and cannot be kept as " + kept.string()};
    }
    return kept;
}

// @return false with `errno`
bool stateFile::copyTo(const std::filesystem::path& file) const
{
    unlink(file.c_str());
    fileDescriptor copy{ownDescriptor(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666))};
    if (!copy.valid()) {
        return false;
    }
    std::array<std::uint8_t, headerBytes> piece{};
    for (off_t at = 0;;) {
        const ssize_t got = pread(m_descriptor, piece.data(), piece.size(), at);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return close(copy.release()) == 0;
        }
        if (writeAllAt(copy.number(), std::span{piece}.first(static_cast<std::size_t>(got)), at) != 0) {
            return false;
        }
        at += got;
    }
}

void stateFile::renew(std::uint64_t layoutMark)
{
    const quietWrites quiet;
    if (ftruncate(m_descriptor, 0) != 0 || ftruncate(m_descriptor, static_cast<off_t>(m_sizeBytes)) != 0) {
        fail(m_path, "state file");
    }
    // a full disk shows now; the next process meets no file with holes in it
    const int trouble = posix_fallocate(m_descriptor, 0, static_cast<off_t>(m_sizeBytes));
    if (trouble != 0) {
        static_cast<void>(ftruncate(m_descriptor, 0));
        errno = trouble;
        fail(m_path, "state file");
    }
    header made;
    made.layout = layoutMark;
    made.size = m_sizeBytes;
    writeHeader(m_mapped, made);
}

// The mark comes last: a file without it is made anew.
void stateFile::seal()
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::ranges::copy(magic, m_mapped);
}

std::span<std::uint8_t> stateFile::record(std::size_t bus, unsigned which) const
{
    const block& of = m_blocks[bus];
    return {m_mapped + of.at + blockHeaderBytes + which * of.recordBytes, of.recordBytes};
}

void stateFile::turn(std::size_t bus)
{
    std::atomic_ref{active(bus)}.store(active(bus) ^ 1U, std::memory_order_release);
}

std::uint64_t stateFile::faultMark() const { return readHeader({m_mapped, headerBytes}).faults; }

std::optional<std::uint64_t> stateFile::seenFaultMark() const
{
    const auto seen = seenHeader(m_descriptor);
    return seen ? std::optional{seen->faults} : std::nullopt;
}

void stateFile::setFaultMark(std::uint64_t mark)
{
    header changed = readHeader({m_mapped, headerBytes});
    changed.faults = mark;
    writeHeader(m_mapped, changed);
}

std::uint32_t stateFile::nextFaultNumber()
{
    header changed = readHeader({m_mapped, headerBytes});
    changed.faultNumbers = std::max(changed.faultNumbers + 1, 1U);
    writeHeader(m_mapped, changed);
    return changed.faultNumbers;
}

std::string stateFile::wavePath(std::size_t bus) const
{
    const std::uint8_t* const at = m_mapped + m_blocks[bus].at + 1;
    const std::size_t length = std::min(at[0] | std::size_t{at[1]} << 8, longestPath);
    return {reinterpret_cast<const char*>(at + 2), length};
}

void stateFile::setWavePath(std::size_t bus, const std::string& text)
{
    std::uint8_t* const at = m_mapped + m_blocks[bus].at + 1;
    const std::size_t size = std::min(text.size(), longestPath);
    at[0] = static_cast<std::uint8_t>(size);
    at[1] = static_cast<std::uint8_t>(size >> 8);
    std::ranges::copy(text.substr(0, size), at + 2);
}

} // namespace kest::sim
