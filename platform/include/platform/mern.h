/// The platform's IIC resource access layer: open devices on IIC buses, configured, positioned, read and written.
///
/// Addresses are in the 8-bit form throughout: 0xA0 is the chip at 7-bit 0x50. An odd one is EINVAL. Address 0 is never
/// sent to nor asked: while no target is set, transfers and item 15 are EINVAL.
///
/// Nodes: -1 is the local one. What 0-7 are is the configuration's matter: each is a path prefix put ahead of
/// `/dev/i2c-N`, or the name of a node of the simulated machine. A path on a node that is not mapped, or to the other
/// kind of bus, is ENODEV.
///
/// A handle is a ticket: target, position, block, locks and first-failure data live in the layer, and every copy of a
/// `mern_t` is the same open device. Handles may be used from any thread; calls on one handle are serialised. A child
/// of fork() has its parent's open devices as its own, without their locks; where an adapter makes SMBus calls alone it
/// opens the node anew before its first use, which can fail as an open does. One that another thread was using during
/// the fork is closed to it (EBADF). What the child opens is foreign to the parent.
///
/// Every function that fails sets `errno`, always:
/// ENXIO    the address was not acknowledged
/// EIO      a data byte was not acknowledged, the transfer ended short, arbitration stayed lost, the system failed without a cause
///          that has a row here
/// ETIME    SCL or SDA held, bus busy too long, a write cycle that does not end, the transfer's time-out
/// ENODATA  the first byte of a read with offset length 3 or 4 (a hub's status) is not 0
/// ENODEV   bus or node gone, or the node is not mapped
/// ENOENT   no such bus, or a malformed path
/// EBADF    closed or foreign handle
/// EINVAL   bad argument, no target set, a transfer with n = 0 that is more than the adapter takes in one message
/// EFAULT   null buffer
/// EBUSY    lock not had within its time-out
/// EACCES   not permitted to open; the folder of a bus's locks and first-failure data can't be made or used, or is refused: it belongs to
///          another user than root, one's own and, for a simulated bus, the machine folder's, or everybody may exchange files in it
/// ENOMEM   no memory, open file or disk space left, also where the system says so with EMFILE or ENFILE
/// ENOSYS   the adapter or the chain cannot do it
/// EDEADLK  this handle holds that lock already: given for this alone
///
/// `mern_iic_config` items (direction 1 reads, 2 sets; a wrong size, direction or item is EINVAL):
/// item   bytes  meaning
/// 2      4      bus speed in kHz, 0 the bus's own default. Once set it outlasts later blocks. A simulated bus runs at
///               it, up to 1000. On a kernel bus it is accepted and read back, but changes nothing on the wires: the
///               adapter's driver alone sets their clock. There it only serves to reckon the length of transactions.
/// 3      4      target address. One other than the non-zero address of the block in force is ENOSYS: that device sits
///               behind a hub, where no register transfer reaches it.
/// 15     4      read only: detect state of the target. 3 present, 0 nothing answers, 1 SCL held low, 2 SDA held low, 4 anything else.
/// 16     4      DMA option: accepted, remembered, without effect
/// 17,18  8      lock, unlock a device address: 16-bit kind, 16-bit address, 32-bit time-out in ms. Kind 0 (hub): host byte order;
///               kind 2 (register device): big-endian. Locks are advisory, exclude each other on a bus and address whatever the kind,
///               and end with unlock, close, exit or death of the holder.
///               The bus itself is the key (device number, or machine folder, node and bus name): every path and node that leads to
///               it meets at the same locks, as long as the lock folder is the same.
/// 19     44     configuration block, host byte order, bytes not listed are kept without meaning:
///               byte  width
///               0     16     bus speed in kHz
///               2     16     device address
///               4     16     offset length n, 0-4: how many bytes of the position go out ahead of the data
///               12    32     time-out of one transfer, ms; 0 the adapter's default
///               20    16     longest write cycle of one page, ms
///               24    32     page size in bytes, a power of two, or 0 for none
///               32    32     option mask and flags: remembered, without effect
///               36    32     0
///               40    32     longest wait for a busy bus, ms
///
/// Reads. With n > 0 the n low bytes of the position go out, most significant first, and the data come after a repeated
/// start. What is more than an adapter takes at once, or than a transaction may bring, is read in pieces, n = 1 or 2:
/// further messages of the same transaction go without the offset, a further transaction begins with its own, the
/// position modulo 256 or 65536. n = 3 or 4 goes through a hub: each piece is a transaction with its full offset, and
/// its first byte is the hub's status; only the first piece's is delivered, a later one must be 0 and is dropped. For n
/// = 3 only the low 8 bits of the position count up, for n = 4 the low 16. Reads past the end of the offset range go on
/// where the chip goes on. With n = 0, what does not fit into one message is EINVAL with nothing sent. An adapter that
/// refuses a longer message is given half as much, down to one byte of data, and is ENOSYS when it refuses that.
///
/// Length of a transaction. Drivers of real controllers time a whole transaction, often with 1 s, and the bus is held
/// meanwhile. So a transaction of a read with n > 0 takes at most 250 ms of wire time, but brings at least one byte: 1
/// bit for a START, a repeated START or a STOP, 9 for each byte of address, offset and data, and no clock stretching.
/// The clock is on a simulated bus its speed; on a kernel bus the lower of the speed set (item 2, else byte 0 of the
/// block) and the clock that the device tree gives the adapter, 100 kHz when it gives none. With n = 2 these are 2773
/// bytes at 100 kHz and 11105 at 400 kHz. One message with n = 0, and one page of a write, are never split for it.
///
/// Waiting. A target that does not answer at the start of a transfer, or to item 15, is asked again for 50 ms, or byte
/// 40 when less, before it is ENXIO: it may be in a write cycle that another process began. After each page of a write,
/// the last included, the target is asked until it answers, for four of its write cycles but at least 50 ms; then it is
/// ETIME. A write with n = 0 and write cycle 0 is not waited for. On a kernel bus a target at 0x60 to 0x6E or 0xA0 to
/// 0xBE is asked by reading a byte from it, which moves its own pointer on; a plain read is asked for by the read
/// itself. A hub is asked by its address alone; on an adapter that cannot send one it is given the whole time that it
/// could have been asked. Where arbitration is lost or the bus is busy the transaction is repeated for as long as byte
/// 40 says. The time-out of a transfer (byte 12) ends all of these. A target that answers the last question is still
/// served. Time is bus time on a simulated bus.
///
/// Two writers of one chip. A write with n > 0 and a page size keeps other such writes to its target away, those of
/// other processes too; through a hub the target is the hub. It waits for them as long as the transfer's time-out says,
/// 10 s without one, then it is ETIME with nothing sent; its own time begins after that. Any other transfer, and item
/// 15, waits on while a silent target is being written so, up to its time-out or for 10 s: it is ETIME then, and detect
/// state 4, never ENXIO. Where the lock's file can't be had there is no such lock.
///
/// First-failure data. The first failed call of a bus and target is recorded, and stays until it is unlocked: later
/// failures, of whatever process, change nothing. The key is the bus itself, as for locks, and the target. Recorded are
/// operation, target, position, offset length, bytes asked for and moved, `errno`, adapter, process and time, and the
/// handle's last bus transactions with their times. It is on the disk when the failed call returns. What stands in its
/// place and is no record is replaced by the next failure. Where the folder can't be written the record is the
/// process's own. Reading needs no permission to write.
#pragma once

#include <cstdint>

/// An open device. The words belong to the layer.
struct mern_t {
    std::uint32_t words[6];
};

/// What a failed open answers; no open device has these words.
extern const mern_t MERN_INVALID;

/// Number of a node: -1 the local one, else 0-7.
using NodeType = std::int32_t;

/// Selects the node whose buses a path names.
class MernNode
{
public:
    MernNode();
    MernNode(const MernNode& other);
    MernNode& operator=(const MernNode&) = delete;
    ~MernNode();

    NodeType number = -1;
};

enum wobu_iic_cfg_t : std::uint32_t {
    WOBU_IIC_SPEED = 2,
    WOBU_IIC_TARGET = 3,
    WOBU_IIC_DETECT_STATE = 15,
    WOBU_IIC_DMA_OPTION = 16,
    WOBU_IIC_LOCK = 17,
    WOBU_IIC_UNLOCK = 18,
    WOBU_IIC_BLOCK = 19,
};

/// Makes the layer ready in this process; further calls change nothing. @param options  0x80000000. @return 0
int MernInitialize(std::uint32_t options);

/// Opens the device at `path`: `/dev/i2c-N`, or `sim:BUS` on the configured simulated machine, either with `@HH` to
/// name the device's address. Position 0; the target is the path's address, or none.
/// @param flags  0x1002: read, write, synchronous
/// @return the handle, or MERN_INVALID with `errno`.
mern_t mern_iic_open(MernNode node, const char* path, int flags);

/// Reads (direction 1) or sets (2) a configuration item, see above. @return 0, or -1 with `errno`.
int mern_iic_config(mern_t& handle, int direction, wobu_iic_cfg_t item, void* value, unsigned int size);

/// Sets the position to the low 32 bits of `offset`. @param whence  0. @return 0, never the position; -1 with `errno`.
int mern_iic_seek(mern_t& handle, long offset, int whence);

/// Reads `size` bytes from the position; with offset length 0 it is a plain read.
/// The position moves on only by a transfer with n > 0 that moved all it was asked to.
/// @return the number of bytes moved, never negative. Fewer than `size` is a failure with `errno` set. Size 0 touches
/// nothing.
int mern_iic_read(mern_t& handle, void* buffer, unsigned int size);

/// Writes `size` bytes at the position, page by page, and waits for the end of each page's write cycle.
/// A position or an end beyond what n = 1 or 2 bytes can say is EINVAL with nothing sent. Result as for reading.
int mern_iic_write(mern_t& handle, const void* buffer, unsigned int size);

/// Frees a held bus: nine clocks and a STOP where the bus can, else a reopened adapter. One that can't be reopened
/// stays open as it was. Leaves position, target, block and locks alone, so that repeating a call repeats the same
/// bytes in the same place.
/// @param kind  1. @return 0, or -1 with `errno`.
int mern_iic_reset(mern_t& handle, int kind);

/// Closes the device and ends its locks. @return 0, or -1 with `errno`.
int mern_iic_close(mern_t& handle);

/// Takes a copy of the device's first-failure data: whole JSON text of at most 4 KiB.
/// @param reserved   0
/// @param[out] data  the text, without terminator, to free with tavo_util_free(); null when there is none
/// @return its size in bytes, 0 when there is none, -1 with `errno`.
int mern_iic_ffdc_extract(mern_t& handle, int reserved, void** data);

/// Drops the device's first-failure data and lets the next failure be recorded.
/// @param reserved  0. @return 0, or -1 with `errno`.
int mern_iic_ffdc_unlock(mern_t& handle, int reserved);
