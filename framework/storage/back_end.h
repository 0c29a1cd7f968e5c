#pragma once

#include "storage/client_io.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
/// A file of a pool while it is written. The bytes are those to be stored, already compressed.
/// Threads:   one at a time (writing and committing may happen on different threads, one after the other).
/// Crash:     before commit() has returned true nothing carries the file's name.
class Stored_File_Writer
{
public:
  /// Without a successful commit() what was written stays, recognisable as unfinished.
  virtual ~Stored_File_Writer();
  /// Stores all bytes or fails with `error` filled.
  [[nodiscard]] virtual bool write(const void* data, unsigned n, std::string& error) = 0;
  /// Makes the bytes and the side file durable, then gives the file its name. May be called once.
  [[nodiscard]] virtual bool commit(const std::string& side_file, std::string& error) = 0;
  /// Removes what was written, while nobody else can yet write a file of the name. A back end that has no
  /// such way leaves it as without a commit.
  virtual void discard();
  /// Makes a call of write() or commit() that is waiting end soon, with an error; so do later ones. For back
  /// ends that wait for more than a disk. Any thread.
  virtual void interrupt() {}
};

/// A file of a pool while it is read.
/// Threads:   one at a time.
class Stored_File_Reader
{
public:
  virtual ~Stored_File_Reader();
  /// Text of the side file; "" when there is none.
  virtual const std::string& side_file() const = 0;
  /// Size of the file when it was opened.
  virtual uint64_t size() const = 0;
  /// The next bytes as stored: n unless the file ends, 0 at the end, negative with `error` filled.
  virtual int read(void* data, unsigned n, std::string& error) = 0;
  /// Whether read_at() works.
  virtual bool can_read_at() const;
  /// The bytes at `offset` as stored: n unless the file ends, negative with `error` filled. Does not move the
  /// place where read() goes on.
  virtual int read_at(uint64_t offset, void* data, unsigned n, std::string& error);
  /// Whether most of the file was in this host's memory when it was opened, so that reading it need not wait
  /// for a disk. False where that cannot be told.
  virtual bool in_memory() const { return false; }
  /// As Stored_File_Writer::interrupt(), for reads.
  virtual void interrupt() {}
  /// How error texts name the file.
  virtual const std::string& path() const = 0;
};

/// Where stored files lie. One object serves one connection.
/// Threads:   one at a time, but the files it opened may be used on another thread.
/// Errors:    false or null with `error` filled: what failed, on which file, why, and what to do.
class Storage_Back_End
{
public:
  virtual ~Storage_Back_End();
  [[nodiscard]] virtual bool connect(const std::string& location, const Client_IO_Base::Options& options,
                                     std::string& error) = 0;
  /// errno is EEXIST exactly when the name is taken: such a file exists and `overwrite` is false, or somebody
  /// else is writing it.
  [[nodiscard]] virtual std::unique_ptr<Stored_File_Writer> create(const std::string& name, bool overwrite,
                                                                   std::string& error) = 0;
  /// errno is EHOSTUNREACH exactly when the storage could not be asked, so that nothing is known of the file.
  [[nodiscard]] virtual std::unique_ptr<Stored_File_Reader> open(const std::string& name,
                                                                 std::string& error) = 0;
  [[nodiscard]] virtual bool remove(const std::string& name, std::string& error) = 0;
};

typedef std::function<std::unique_ptr<Storage_Back_End>()> Storage_Back_End_Factory;

/// Makes a back end known under the name that pools carry ("" is the directory on this host and may be
/// replaced too). An empty factory forgets the name. Any thread; open connections are not touched.
void register_storage_back_end(const std::string& name, Storage_Back_End_Factory factory);

/// A new back end of that name; null with `error` filled when none is registered.
[[nodiscard]] std::unique_ptr<Storage_Back_End> make_storage_back_end(const std::string& name,
                                                                      std::string& error);
} // namespace kestrel
