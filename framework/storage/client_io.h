#pragma once

#include "storage/compression.h"
#include "storage/rate_limits.h"

#include <map>
#include <memory>
#include <string>

/// How one connection to storage behaves, and the few things shared by every client.
class Client_IO_Base
{
public:
  /// A plain value. Defaults: replace an existing file, no compression, no limits.
  struct Options {
    /// Opening for writing replaces a stored file of the same name; false refuses it.
    bool overwrite = true;
    Compression_Method compression_method = COMPRESSION_NONE;
    /// See kestrel::effective_compression_level() for how a level outside the method's range is taken.
    int compression_level = 1;
    /// Carried for back ends that deduplicate; a directory pool ignores it.
    unsigned dedup_chunk_size = 0;
    /// Carried for back ends that can lose a connection; a directory pool has none to retry.
    unsigned max_seconds_retry = 0;
    unsigned resumption_buffer_size = 0;
    Rate_Limits rate_limits;
    bool server_side_dedup = false;

    /// Stores a name/value pair that travels with the connection, such as an HTTP header; a later value
    /// replaces an earlier one. False, with nothing stored, when the name is null or empty.
    bool set_extra_option(const char* name, const std::string& value);
    /// The value of an extra option; null when it was never set. Valid until the record changes.
    const std::string* extra_option(const char* name) const;

    /// Threads that compress one stream; 0 = one for each core, at most 4. Only zstd uses more than one.
    unsigned compression_workers = 0;

    // The pool's address, written by set_options_by_pool().
    std::string back_end;
    std::string storage_path;
    bool pool_marked = false;
    std::string host;
    unsigned short port = 0;
    bool tls = false;

  private:
    std::map<std::string, std::string> extra_options_;
  };
};

namespace kestrel
{
class Client_IO_State;
}

/// One stream of bytes to or from a stored file. See Client_IO_Ex for opening and closing.
class Client_IO : public Client_IO_Base
{
public:
  Client_IO(const Client_IO&) = delete;
  Client_IO& operator=(const Client_IO&) = delete;

  /// Accepts all `n` bytes or fails. The bytes travel through a bounded queue to a worker thread, so an error
  /// of the storage may be reported by a later write() or by close(). Blocks while the queue is full.
  /// write(p, 0) is true.
  bool write(const void* data, unsigned n);

  /// Returns original (decompressed) bytes: `n` unless the file ends earlier, 0 at the end, negative on an
  /// error. A count below `n`, 0 included, is only returned after every checksum and size of the file has
  /// been verified.
  int read(void* data, unsigned n);

  /// Text of the last error of this object; "" when there was none. Valid until the next call on this object.
  const char* error() const;

  /// Bytes handed to write(), or given out by read(). Stays valid after close().
  unsigned long long original_size() const;
  /// Bytes as stored. Complete after close(); stays valid until the next open.
  unsigned long long storage_size() const;

  /// XXH3-128 of the stream and of the stored bytes, as 32 lower-case hex digits. Of a written file both are
  /// valid after a successful close(); of a read one after the end was reached. "" before that.
  const std::string& original_checksum() const;
  const std::string& storage_checksum() const;

protected:
  Client_IO();
  ~Client_IO();

  std::unique_ptr<kestrel::Client_IO_State> state_;
};

/// A connection to one folder of a storage pool, with at most one file open at a time.
///
/// Purpose:   keeps a byte stream in a pool so that it is either stored whole, durable and with its
///            checksums, or recognisably unfinished.
/// Threads:   one owner thread at a time; the object runs one worker thread of its own while a file is open.
///            Any number of objects may work in one pool; two writers of one name exclude each other (the
///            second open fails).
/// Ownership: owns its worker and descriptors; the destructor stops and closes them. A file that was open for
///            writing and was not closed stays behind under its temporary name.
/// Units:     bytes.
/// Errors:    false or a negative count; error() then says what failed, on which file, and why.
/// Crash:     before close() has returned true only NAME.partial (and perhaps NAME.meta) exists, never NAME.
///            Such leftovers are replaced by the next writer of the name and removed by remove().
class Client_IO_Ex : public Client_IO
{
public:
  Client_IO_Ex();
  ~Client_IO_Ex();

  /// Modes of open().
  enum { MODE_READ = 1, MODE_WRITE = 2 };

  /// Selects the folder "<pool storage path>/<source id>". The pool's own directory must exist: it is never
  /// made, so that a missing mount cannot fill the disk below it. For the same reason a pool that was marked
  /// must carry its mark, here and whenever a file is opened or removed. The source's folder is made by the
  /// first write.
  bool connect(const std::string& location, const Client_IO_Base::Options& options);

  /// Mode 2 creates the file for writing, mode 1 reads it from its first byte. The last two arguments are
  /// reserved and must be 0. A file still open is closed first (a written one is then left unfinished).
  bool open(const std::string& name, int mode, int, int);

  /// After a failed open() for writing: true when the name is taken, so that another name may be tried: such
  /// a file exists and Options::overwrite is false, or somebody else is writing it.
  bool name_taken() const;

  /// Opens the file for read_at() only. Nothing is read ahead, and the checksums of the whole file are not
  /// verified: what is read must carry its own. True with `possible` false, and nothing open, when the file is
  /// compressed or its storage cannot do it; open() can read it then.
  bool open_random(const std::string& name, bool& possible);
  /// The bytes at `offset`: n unless the file ends, negative on an error. original_size() is how many were
  /// given out.
  int read_at(unsigned long long offset, void* data, unsigned n);
  /// Bytes of the file that open_random() opened.
  unsigned long long random_size() const;

  /// Writing: gives the file up and leaves nothing of it. Otherwise as close().
  bool discard();

  /// Writing: hands over what is buffered, makes everything durable and gives the file its name; false leaves
  /// only the temporary file. Reading: stops at once. True when nothing is open.
  bool close();

  /// Removes the stored file with its side file and any unfinished leftover; a file that does not exist is
  /// success.
  bool remove(const std::string& name);
};
