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

    /// Appends a record of `count` words, an even number; its tag and check words are made here.
    /// @return false when the lane is frozen: the ring has moved
    bool append(const std::uint32_t* record, std::size_t count, std::uint32_t laneUnits, std::uint32_t seed)
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
        // Tag and check come last: until then what was here before has no valid tag, or a wrong check.
        constexpr std::size_t head = wordCheck + 1;
        static_assert(head == wordsPerUnit, "a record that wraps has its tag and check in one piece");
        checkSum check(seed);
        check.add(at);
        const std::size_t first = positionIndex(at) * std::size_t{wordsPerUnit};
        const std::size_t ahead = laneUnits * std::size_t{wordsPerUnit} - first;
        const std::size_t before = count < ahead ? count : ahead;
        store(first + head, record + head, before - head, check);
        store(0, record + before, count - before, check);
        word(first + wordTag).store(at, std::memory_order_relaxed);
        word(first + wordCheck).store(check.value(), std::memory_order_relaxed);
        return true;
    }

    /// Refuses all further records. @return the position up to which records have been reserved
    std::uint32_t freeze() { return position().exchange(frozenPosition, std::memory_order_acq_rel); }

    /// Copies position and records as bytes to `bytes`. The position is taken last, so that no record lies beyond it.
    void copyTo(std::uint8_t* bytes, std::uint32_t laneUnits)
    {
        for (std::size_t index = 0; index < laneUnits * std::size_t{wordsPerUnit}; ++index) {
            const std::uint32_t copied = word(index).load(std::memory_order_relaxed);
            std::memcpy(bytes + laneHeadBytes + index * sizeof copied, &copied, sizeof copied);
        }
        std::atomic_thread_fence(std::memory_order_acquire);
        const std::uint32_t end = position().load(std::memory_order_relaxed);
        std::memcpy(bytes, &end, sizeof end);
    }

    /// Copies another lane's position and records. Nobody else uses this lane yet.
    void copyFrom(ringLane& other, std::uint32_t laneUnits)
    {
        for (std::size_t index = 0; index < laneUnits * std::size_t{wordsPerUnit}; ++index) {
            word(index).store(other.word(index).load(std::memory_order_relaxed), std::memory_order_relaxed);
        }
        std::atomic_thread_fence(std::memory_order_acquire);
        position().store(other.position().load(std::memory_order_relaxed), std::memory_order_relaxed);
    }

private:
    static constexpr std::uint32_t wordsPerUnit = unitBytes / sizeof(std::uint32_t);
    static_assert(std::atomic_ref<std::uint32_t>::is_always_lock_free);

    std::atomic_ref<std::uint32_t> position() { return std::atomic_ref(m_position); }
    std::atomic_ref<std::uint32_t> word(std::size_t index)
    {
        return std::atomic_ref(reinterpret_cast<std::uint32_t*>(reinterpret_cast<char*>(this) + laneHeadBytes)[index]);
    }
    /// Stores an even number of words, and adds them to a check.
    void store(std::size_t first, const std::uint32_t* words, std::size_t count, checkSum& check)
    {
        for (std::size_t index = 0; index < count; index += wordsPerUnit) {
            const std::uint32_t left = words[index];
            const std::uint32_t right = words[index + 1];
            check.add(left);
            check.add(right);
            word(first + index).store(left, std::memory_order_relaxed);
            word(first + index + 1).store(right, std::memory_order_relaxed);
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
