#pragma once

/// Compression methods of stored files: numbers, names, file name suffixes and archive codes.
/// Limits:    only methods that this build can both write and read are listed.
/// Threads:   all functions may be called from any thread; results are static texts, never freed.
/// Errors:    none; unknown input gives 0, "" or null as stated.

/// 0 = none. The numbers are stored in side files and travel in job documents: never renumber.
typedef unsigned Compression_Method;

const Compression_Method COMPRESSION_NONE = 0;
const Compression_Method COMPRESSION_ZLIB = 1;
const Compression_Method COMPRESSION_LZ4 = 2;
const Compression_Method COMPRESSION_ZSTD = 3;

/// The method named by `length` bytes at `text` (no terminating NUL needed), compared exactly:
/// "none", "zlib", "lz4", "zstd". Anything else, a null text included, gives 0.
Compression_Method compression_name_to_value(const char* text, unsigned length);

/// The name of a method; "none" for 0 and for an unknown number.
const char* compression_value_to_name(Compression_Method method);

/// The suffix of a stored file: "", ".gz", ".lz4" or ".zst"; "" for an unknown number.
const char* compression_value_to_suffix(Compression_Method method);

/// The archive's own code of a method, kept in archive records. It is the same number; an unknown method
/// gives 0.
unsigned compression_to_mtf(Compression_Method method);

namespace kestrel
{
/// True for a number that this build can write and read, 0 included.
bool is_compression_method(Compression_Method method);

/// The level really used when a job asks for `level`: 0 and anything unknown give the method's own default
/// (zlib 6, lz4 1, zstd 3), a level below 1 gives 1, a level above the highest gives the highest (zlib 9, lz4
/// 12, zstd 19). A method without levels gives 0.
int effective_compression_level(Compression_Method method, int level);
} // namespace kestrel
