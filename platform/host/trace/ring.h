/// A ring as the writer sees it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/host/trace/layout.h"
#include "platform/host/trace/ringfile.h"

namespace kest::host::trace
{

/// One lane: a position word and `laneUnits` units of records. Any number of threads may append and read at the same
/// time. A thread that is stopped halfway loses its own record and may tear others; their check words show it.
class ringLane
{
public:
    ringLane(const ringLane&) = delete;
    ringLane& operator=(const ringLane&) = delete;

    /// Appends a record of `count` words, an even number; fills its tag and check words.
    /// @return false when the lane is frozen: the ring has moved
    bool append(std::uint32_t* record, std::size_t count, std::uint32_t laneUnits, std::uint32_t seed)
    {
        const auto units = static_cast<std::uint32_t>(count * sizeof *record / unitBytes);
        std::uint32_t at = position().load(std::memory_order_relaxed);
        do {
            // frozen, or overwritten with nonsense: then nothing may be written
            if (positionIndex(at) >= laneUnits) {
                return false;
            }
        } while (!position().compare_exchange_weak(at, advanced(at, units, laneUnits), std::memory_order_acq_rel,
                                                   std::memory_order_relaxed));
        checkSum check(seed);
        record[wordTag] = at;
        check.add(at);
        for (std::size_t index = wordCheck + 1; index < count; ++index) {
            check.add(record[index]);
        }
        record[wordCheck] = check.value();
        const std::size_t first = positionIndex(at) * std::size_t{wordsPerUnit};
        const std::size_t ahead = laneUnits * std::size_t{wordsPerUnit} - first;
        store(first, record, count < ahead ? count : ahead);
        if (count > ahead) {
            store(0, record + ahead, count - ahead);
        }
        return true;
    }

    /// Refuses all further records. @return the position up to which records have been reserved
    std::uint32_t freeze() { return position().exchange(frozenPosition, std::memory_order_acq_rel); }

    /// Copies position and records as bytes to `bytes`. The position is taken last, so that no record lies beyond it.
    void copyTo(std::uint8_t* bytes, std::uint32_t laneUnits)
    {
        for (std::size_t index = 0; index < laneUnits * std::size_t{wordsPerUnit}; ++index) {
            const std::uint32_t word = at(index).load(std::memory_order_relaxed);
            std::memcpy(bytes + laneHeadBytes + index * sizeof word, &word, sizeof word);
        }
        std::atomic_thread_fence(std::memory_order_acquire);
        const std::uint32_t end = position().load(std::memory_order_relaxed);
        std::memcpy(bytes, &end, sizeof end);
    }

    /// Copies another lane's position and records. Nobody else uses this lane yet.
    void copyFrom(ringLane& other, std::uint32_t laneUnits)
    {
        for (std::size_t index = 0; index < laneUnits * std::size_t{wordsPerUnit}; ++index) {
            at(index).store(other.at(index).load(std::memory_order_relaxed), std::memory_order_relaxed);
        }
        std::atomic_thread_fence(std::memory_order_acquire);
        position().store(other.position().load(std::memory_order_relaxed), std::memory_order_relaxed);
    }

private:
    static constexpr std::uint32_t wordsPerUnit = unitBytes / sizeof(std::uint32_t);
    static_assert(std::atomic_ref<std::uint32_t>::is_always_lock_free);

    std::atomic_ref<std::uint32_t> position() { return std::atomic_ref(m_position); }
    std::atomic_ref<std::uint32_t> at(std::size_t index)
    {
        return std::atomic_ref(reinterpret_cast<std::uint32_t*>(reinterpret_cast<char*>(this) + laneHeadBytes)[index]);
    }
    void store(std::size_t first, const std::uint32_t* words, std::size_t count)
    {
        for (std::size_t index = 0; index < count; ++index) {
            at(first + index).store(words[index], std::memory_order_relaxed);
        }
    }

    alignas(laneHeadBytes) std::uint32_t m_position; ///< alone on its pair of cache lines
};
static_assert(sizeof(ringLane) == laneHeadBytes && sizeof(ringHeader) % alignof(ringLane) == 0);

/// A ring's bytes, in memory of the process or mapped from a file.
struct storage {
    ringHeader header;
    [[nodiscard]] ringLane& lane(std::uint32_t number, std::uint32_t stride)
    {
        return *reinterpret_cast<ringLane*>(reinterpret_cast<char*>(this) + sizeof(ringHeader) +
                                            std::size_t{number} * stride);
    }
};

} // namespace kest::host::trace

/// What a descriptor points to. All that guards memory is here: a process that writes the file cannot change it.
struct trace_wobu_buffer {
    std::atomic<kest::host::trace::storage*> place{nullptr};
    std::uint32_t laneUnits = 0;
    std::uint32_t laneStride = 0;
    std::uint32_t seed = 0;
    char name[kest::host::trace::maximumNameBytes + 1]{};
    kest::host::trace::ringFileHandle file;
};
