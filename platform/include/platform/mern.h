/// @file
/// The platform's IIC resource access layer: open devices on IIC buses, configured, positioned, read and written.
///
/// Addresses are in the 8-bit form throughout: 0xA0 is the chip at 7-bit 0x50. An odd one is EINVAL. Nothing is ever
/// sent to address 0: while no target is set, transfers and the detect state are EINVAL.
///
/// Nodes: -1 is the local one. The configuration says what 0-7 are: each is a path prefix put before `/dev/i2c-N`, or
/// the name of a node of the simulated machine. A path on a node that is not mapped, or to the other kind of bus, is
/// ENODEV.
///
/// A handle is a ticket: target, position, block, locks and first-failure data live in the layer, and every copy of a
/// `mern_t` is the same open device. Handles may be used from any thread; calls on one handle are serialised.
///
/// A child of fork() inherits its parent's open devices without their locks. Where an adapter makes only SMBus calls,
/// the child opens the node again at first use, which can fail like any open. A device that another thread was using
/// during the fork is closed in the child (EBADF). What the child opens is foreign to the parent.
///
/// Below, n is the offset length of the block in force: so many bytes of the position go out before the data.
///
/// Every function that fails sets `errno`, always:
///
/// - ENXIO: the address was not acknowledged
/// - EIO: a data byte was not acknowledged, the transfer ended short, arbitration stayed lost, or the system failed
///   for a reason that is not listed here
/// - ETIME: SCL or SDA held, bus busy too long, a write cycle that does not end, the transfer's time-out
/// - ENODATA: the first byte of a read with n = 3 or 4 (a hub's status) is not 0
/// - ENODEV: bus or node gone, or the node is not mapped
/// - ENOENT: no such bus, or a malformed path
/// - EBADF: closed or foreign handle
/// - EINVAL: bad argument, no target set, a transfer with n = 0 that is more than the adapter takes in one message
/// - EFAULT: null buffer
/// - EBUSY: the lock was not free within its time-out
/// - EACCES: not permitted to open; the folder of a bus's locks and first-failure data cannot be made or used, or
///   is refused. It is refused when everybody may replace files in it, or when its owner is not root, the caller
///   or, for a simulated bus, the owner of the machine folder
/// - ENOMEM: no memory, open file or disk space left, also where the system says so with EMFILE or ENFILE
/// - ENOSYS: the adapter or the chain cannot do it, and nothing was sent; first-failure data say what the adapter
///   lacks
/// - EDEADLK: this handle already holds that lock; nothing else gives EDEADLK
///
/// On the wire. S is a START, R a repeated START, P a STOP, a an acknowledge, n its absence; d0, d1, ... are data. The
/// upper line shows what the layer sends, the lower one what the device sends.
///
/// A read of three bytes at position 0x1234, with n = 2, target 0xA0:
///
///     S A0   12   34   R A1      a    a    n P
///          a    a    a      a d0   d1   d2
///
/// A write of two bytes there. Then the target is asked until its write cycle is over:
///
///     S A0   12   34   d0   d1   P    S A0   P    S A0   P
///          a    a    a    a    a           n           a
///
/// A read of two bytes through the hub at 0x80, with n = 4. The position 0x03A21234 is port 3, the device's address
/// 0xA2 and 0x1234 as the position in the device; `st` is the hub's status. The read asks for three bytes:
///
///     S 80   03   A2   12   34   R 81      a    a    n P
///          a    a    a    a    a      a st   d0   d1
///
/// Reads. With n > 0 the n low bytes of the position go out, most significant first, and the data come after a repeated
/// START. A read that is too long for one message or one transaction is split. With n = 1 or 2 further messages of the
/// same transaction go without the offset; a further transaction begins with an offset of its own, the position modulo
/// 256 or 65536. n = 3 or 4 goes through a hub: each piece is a transaction with its full offset, and its first byte
/// is the hub's status. The caller gets the first piece's status; a later one must be 0 and is dropped. For n = 3 only
/// the low 8 bits of the position count up, for n = 4 the low 16. A read past the offset range continues wherever the
/// chip does. With n = 0 a read that does not fit into one message is EINVAL with nothing sent. When an adapter
/// refuses a message as too long, the layer halves it, down to one byte of data; if that is refused, too, it is
/// ENOSYS. An adapter that is known to send a STOP in place of a repeated START still reads with n = 1 or 2, as long
/// as no other controller uses the device between the two. With n = 3 or 4 it is ENOSYS, because a hub would take the
/// offset for a write of its own. A kernel bus does not tell.
///
/// Length of a transaction. Drivers of real controllers limit the time of a whole transaction, often to 1 s, and the
/// bus is held meanwhile. So a transaction of a read with n > 0 takes at most 250 ms of wire time, but brings at least
/// one byte. Wire time is 1 bit for a START, a repeated START or a STOP, and 9 for each byte of address, offset and
/// data; clock stretching does not count. On a simulated bus the clock is the bus's speed. On a kernel bus it is the
/// lower of the speed set (`WOBU_IIC_SPEED`, else the block's) and the clock that the device tree gives the adapter,
/// 100 kHz when it gives none. With n = 2 that is 2773 bytes at 100 kHz and 11105 at 400 kHz. A message with n = 0,
/// and one page of a write, are never split for it. When an adapter gives up a transaction with n > 0 before four
/// times its wire time have passed, later transactions take a quarter of the time that it waited, and pages are sent
/// in parts, too. The handle remembers that until a reset.
///
/// Waiting. A silent target may be in a write cycle that another process began. So a target that does not acknowledge
/// at the start of a transfer, or when its state is asked for, is asked again for 50 ms, or `busyWaitMs` when that is
/// less; then it is ENXIO. After each page of a write, the last included, the target is asked until it acknowledges,
/// for four of its write cycles but at least 50 ms; then it is ETIME. A write with n = 0 and write cycle 0 is not
/// waited for. On a kernel bus a target at 0x60 to 0x6E or 0xA0 to 0xBE is asked by reading a byte from it, which
/// moves its own pointer on; a plain read is itself repeated until it is acknowledged. Where the adapter cannot send
/// an address alone, a target that no hub can have (0x80 to 0x8E) is asked by reading two bytes, and cannot be asked
/// by SMBus calls. A hub is asked by its address alone; where that is impossible the layer waits the whole time
/// instead. Some adapters report a time-out where nobody acknowledges: that is silence while a write cycle or another
/// writer is waited for, and ETIME at a start. Where arbitration is lost or the bus is busy, the transaction is
/// repeated for `busyWaitMs`. The time-out of a transfer ends all of these. A target that acknowledges the last time
/// it is asked is still served. On a simulated bus these times are bus time.
///
/// Two writers of one chip. A write with n > 0 and a page size locks out other such writes to its target, also those of
/// other processes; through a hub the target is the hub. It waits for them as long as the transfer's time-out, 10 s
/// without one; then it is ETIME with nothing sent. Its own time-out starts after that. Any other transfer to a target
/// that such a write keeps silent, and a read of its detect state, waits for the write, up to its own time-out or for
/// 10 s; then it is ETIME, or `MERN_DETECT_UNCERTAIN`, never ENXIO. Where the lock's file cannot be opened there is no
/// such lock.
///
/// First-failure data. The first failed call of a bus and target is recorded. The record stays until it is unlocked;
/// later failures in any process do not change it. Its key is the bus itself, as for locks, and the target. It has
/// operation, target, position, offset length, bytes asked for and moved, `errno`, adapter, process and time, and the
/// handle's last bus transactions with their times, and what the adapter lacked when it refused the transfer. It is on
/// the disk when the failed call returns. A file in its place that is no record is replaced by the next failure. Where
/// the folder cannot be written the process keeps the record for itself. Reading needs no permission to write.
#pragma once

#include <cstdint>

/// An open device. The words belong to the layer.
struct mern_t {
    std::uint32_t words[6]; ///< without meaning to others
};

/// What a failed open returns; no open device has these words.
extern const mern_t MERN_INVALID;

/// Number of a node: `MERN_NODE_LOCAL`, else 0-7.
using NodeType = std::int32_t;
constexpr NodeType MERN_NODE_LOCAL = -1; ///< the local one

/// Selects the node whose buses a path names.
class MernNode
{
public:
    MernNode();
    /// Selects the same node.
    /// @param other  stays as it is
    MernNode(const MernNode& other);
    MernNode& operator=(const MernNode&) = delete;
    ~MernNode();

    NodeType number = MERN_NODE_LOCAL; ///< `MERN_NODE_LOCAL`, else 0-7
};

/// What MernInitialize() takes.
constexpr std::uint32_t MERN_INITIALIZE_OPTIONS = 0x80000000;

/// What mern_iic_open() takes.
enum mern_open_flags : std::int32_t {
    MERN_OPEN_READ_WRITE_SYNC = 0x1002, ///< read, write, synchronous
};

/// What mern_iic_reset() takes.
enum mern_reset_kind : std::int32_t {
    MERN_RESET_BUS = 1, ///< the whole bus
};

/// Directions of a configuration call.
enum mern_direction : std::int32_t {
    MERN_CONFIG_READ = 1, ///< into the caller's value
    MERN_CONFIG_SET = 2, ///< from the caller's value
};

/// Configuration items. A call with another item, size or direction is EINVAL.
enum wobu_iic_cfg_t : std::uint32_t {
    /// 4 bytes: bus speed in kHz, 0 the bus's own default. Once set it outlasts later blocks. A simulated bus runs at
    /// it, up to 1000. On a kernel bus it is accepted and read back, but changes nothing on the wires: the adapter's
    /// driver alone sets their clock. There it only serves to compute the length of transactions.
    WOBU_IIC_SPEED = 2,
    /// 4 bytes: target address. ENOSYS when it differs from a non-zero address in the block in force: that device sits
    /// behind a hub, where no register transfer reaches it.
    WOBU_IIC_TARGET = 3,
    /// 4 bytes, read only: state of the target, a `mern_detect_state`.
    WOBU_IIC_DETECT_STATE = 15,
    /// 4 bytes: DMA option. Accepted, remembered, without effect.
    WOBU_IIC_DMA_OPTION = 16,
    /// `mern_iic_lock`, set only: take the lock of a device address.
    WOBU_IIC_LOCK = 17,
    /// `mern_iic_lock`, set only: release the lock of a device address.
    WOBU_IIC_UNLOCK = 18,
    /// `mern_iic_block`.
    WOBU_IIC_BLOCK = 19,
};

/// What the layer finds at the target's address.
enum mern_detect_state : std::uint32_t {
    MERN_DETECT_ABSENT = 0, ///< nothing acknowledges the address
    MERN_DETECT_SCL_HELD = 1, ///< SCL is low; on simulated buses only, as is the next
    MERN_DETECT_SDA_HELD = 2, ///< SDA is low
    MERN_DETECT_PRESENT = 3, ///< the address was acknowledged
    MERN_DETECT_UNCERTAIN = 4, ///< anything else
};

/// Who takes a lock, and in which byte order.
enum mern_lock_kind : std::uint16_t {
    MERN_LOCK_HUB = 0, ///< host byte order
    MERN_LOCK_REGISTER_DEVICE = 2, ///< big-endian, all fields: the record's first two bytes are 00 02 on every host
};

/// A lock of a device address. Locks are advisory and exclude each other on a bus and address, whatever the kind. They
/// end with unlock, close, exit or death of the holder. The bus itself is the key (device number, or machine folder,
/// node and bus name): every path and node that leads to it shares the same locks, as long as the lock folder is the
/// same.
struct mern_iic_lock {
    std::uint16_t kind; ///< a `mern_lock_kind`
    std::uint16_t address; ///< 8-bit form
    std::uint32_t timeoutMs; ///< the longest wait, in ms
};
static_assert(sizeof(mern_iic_lock) == 8);

/// The longest offset, in bytes, that a block can ask for.
constexpr std::uint16_t MERN_OFFSET_LENGTH_MAX = 4;

/// The configuration block, host byte order. Reserved fields are kept without meaning.
struct mern_iic_block {
    std::uint16_t speedKhz; ///< bus speed in kHz
    std::uint16_t address; ///< of the device, 8-bit form; 0 leaves the target as it is
    std::uint16_t offsetLength; ///< n, 0-4: bytes of the position that go out before the data; more is EINVAL
    std::uint16_t reserved6; ///< kept
    std::uint32_t reserved8; ///< kept
    std::uint32_t timeoutMs; ///< of one transfer, in ms; 0 the adapter's default
    std::uint32_t reserved16; ///< kept
    std::uint16_t writeCycleMs; ///< the longest write cycle of one page, in ms
    std::uint16_t reserved22; ///< kept
    std::uint32_t pageSize; ///< bytes: a power of two, or 0 for none; any other is EINVAL
    std::uint32_t reserved28; ///< kept
    std::uint32_t flags; ///< option mask and flags: remembered, without effect
    std::uint32_t reserved36; ///< 0
    std::uint32_t busyWaitMs; ///< the longest wait for a busy bus, in ms
};
static_assert(sizeof(mern_iic_block) == 44);

/// Makes the layer ready in this process; further calls change nothing.
/// @param options  `MERN_INITIALIZE_OPTIONS`
/// @return 0
int MernInitialize(std::uint32_t options);

/// Opens the device at `path`: `/dev/i2c-N`, or `sim:BUS` on the configured simulated machine, either with `@HH` to
/// name the device's address. Position 0; the target is the path's address, or none.
/// @param node  whose buses the path names
/// @param path  stays the caller's
/// @param flags  `MERN_OPEN_READ_WRITE_SYNC`
/// @return the handle, or MERN_INVALID with `errno`.
mern_t mern_iic_open(MernNode node, const char* path, int flags);

/// Reads or sets a configuration item.
/// @param handle  an open device
/// @param direction  a `mern_direction`
/// @param item  which item
/// @param[in,out] value  what the item holds, in host byte order unless it says otherwise; null is EFAULT
/// @param size  bytes of the item
/// @return 0, or -1 with `errno`.
int mern_iic_config(mern_t& handle, int direction, wobu_iic_cfg_t item, void* value, unsigned int size);

/// Sets the position.
/// @param handle  an open device
/// @param offset  its low 32 bits are the position
/// @param whence  0
/// @return 0, never the position; -1 with `errno`.
int mern_iic_seek(mern_t& handle, long offset, int whence);

/// Reads `size` bytes from the position; with offset length 0 it is a plain read.
/// Only a transfer with n > 0 that moved all bytes moves the position on.
/// @param handle  an open device
/// @param[out] buffer  room for `size` bytes; null is EFAULT
/// @param size  bytes wanted
/// @return the number of bytes moved, never negative. Fewer than `size` is a failure with `errno` set. Size 0 touches
/// nothing.
int mern_iic_read(mern_t& handle, void* buffer, unsigned int size);

/// Writes `size` bytes at the position, page by page, and waits for the end of each page's write cycle.
/// A position or an end that n = 1 or 2 bytes cannot express is EINVAL with nothing sent.
/// @param handle  an open device
/// @param buffer  the bytes, which stay the caller's; null is EFAULT
/// @param size  bytes at `buffer`
/// @return as for mern_iic_read()
int mern_iic_write(mern_t& handle, const void* buffer, unsigned int size);

/// Frees a held bus: nine clocks and a STOP where the bus can make them, else the adapter is reopened. One that can't
/// be reopened stays open as it was. Leaves position, target, block and locks alone, so that repeating a call repeats
/// the same bytes in the same place.
/// @param handle  an open device
/// @param kind  `MERN_RESET_BUS`
/// @return 0, or -1 with `errno`.
int mern_iic_reset(mern_t& handle, int kind);

/// Closes the device and ends its locks.
/// @param handle  an open device; every copy of it is closed
/// @return 0, or -1 with `errno`.
int mern_iic_close(mern_t& handle);

/// Takes a copy of the device's first-failure data: whole JSON text of at most 4 KiB.
/// @param handle  an open device
/// @param reserved  0
/// @param[out] data  the text, without terminator, to free with tavo_util_free(); null when there is none
/// @return its size in bytes, 0 when there is none, -1 with `errno`.
int mern_iic_ffdc_extract(mern_t& handle, int reserved, void** data);

/// Drops the device's first-failure data, so that the next failure is recorded.
/// @param handle  an open device
/// @param reserved  0
/// @return 0, or -1 with `errno`.
int mern_iic_ffdc_unlock(mern_t& handle, int reserved);
