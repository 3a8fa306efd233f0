/// @file
/// The platform's trace facility: named ring buffers that take short records and keep the latest.
///
/// All functions may be called from any thread, and during static initialisation.
#pragma once

#include <cstdint>

/// A trace buffer. Owned by the trace facility; lives until the process ends.
struct trace_wobu_buffer;
/// Stands for a buffer; null for none.
using trace_wobu_descriptor = trace_wobu_buffer*;

/// Creates the buffer `name`, or returns the process's existing one of that name, whatever its size. A process can have
/// 32.
/// @param[out] descriptor  the buffer; null after a failure, and traces to it are then dropped
/// @param name  1 to 31 letters, digits or '_'
/// @param size  bytes of records for each of 8 groups of threads, 1 to 524,272; less than 2,048 counts as 2,048
/// @return 0, or -1 with `errno`: EINVAL for another name or size or a null `descriptor`, ENOSPC for a buffer too many,
/// ENOMEM
int trace_wobu_init_buffer(trace_wobu_descriptor* descriptor, const char* name, unsigned int size);

/// Writes one text record and leaves `errno` alone. Nothing is formatted here: the arguments are stored, and formatted
/// when the buffer is read. At most 255 bytes of the format and of each text argument are kept, and 992 of the record;
/// a record that was cut says so.
/// @param descriptor  null drops the record
/// @param hash  identifies the trace point's message
/// @param format  printf format; must outlive the process's use of the buffer (a string literal). Conversions: d i u x
/// X c s p, with flags, width and the length modifiers h, l, ll, z.
/// @param line  source line of the trace point
/// @param type  0
void trace_wobu_write_all(trace_wobu_descriptor descriptor, std::uint32_t hash, const char* format, int line, int type,
                          ...) __attribute__((format(printf, 3, 6)));

/// Writes one binary record, a header and data, both copied, and leaves `errno` alone. Bytes beyond 984 in all are cut;
/// the record then says so.
/// @param descriptor  null drops the record
/// @param type  0
/// @param headerSize  bytes at `header`
/// @param header  stays the caller's
/// @param dataSize  bytes at `data`
/// @param data  stays the caller's
void trace_wobu_write2(trace_wobu_descriptor descriptor, int type, unsigned int headerSize, const void* header,
                       unsigned int dataSize, const void* data);
