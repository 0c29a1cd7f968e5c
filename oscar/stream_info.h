#pragma once

#include <cstdint>

namespace oscar
{
/// The backup info block at the start of every stream: a head of fixed size, whose first four bytes
/// (big-endian) give the length of the whole block, then text lines, some of which name a database file and
/// its size.
constexpr unsigned STREAM_HEAD_BYTES = 512;
/// The pumps move data in blocks of this size; a restore also reads the whole info block into one such
/// buffer.
constexpr unsigned STREAM_BLOCK_BYTES = 8192;

/// Length of the info block, head included, as the head claims it. head: at least four bytes. The value comes
/// from a tool or from a stored file: it may be anything.
uint32_t stream_info_length(const void* head);

/// Sums the sizes that the info text gives for files that exist here. Lines without "=", and lines whose path
/// is not an existing regular file, do not count; a sum beyond 64 bits stays at the largest value. data may
/// hold any bytes; len may be 0.
uint64_t stream_backup_set_size(const char* data, unsigned len);
} // namespace oscar
