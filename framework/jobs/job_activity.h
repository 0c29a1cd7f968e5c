#pragma once

#include "jobs/job_types.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <type_traits>

namespace kestrel
{
/// A plain value in a mapped record that several threads read and write without a lock: every access is a
/// relaxed atomic one, so a reader sees an old or a new value and never a torn one. It reads and assigns like
/// a T. Aligned to its size, without which a 64-bit value would not be atomic on 32-bit hosts.
template <class T> class Mapped_Value
{
public:
  Mapped_Value() = default;
  Mapped_Value(const Mapped_Value&) = default;

  operator T() const { return load(); }
  T load() const { return __atomic_load_n(&value_, __ATOMIC_RELAXED); }
  T operator=(T value)
  {
    __atomic_store_n(&value_, value, __ATOMIC_RELAXED);
    return value;
  }
  Mapped_Value& operator=(const Mapped_Value& other) = default;
  /// Sets the value when it still is expected; false, and expected is what it is, otherwise.
  bool compare_exchange(T& expected, T value)
  {
    return __atomic_compare_exchange_n(&value_, &expected, value, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
  }

private:
  alignas(sizeof(T)) T value_;
};
} // namespace kestrel

/// The live status of one job, kept in a memory-mapped file so that other processes can look on and the last
/// status survives the agent. Times are seconds since the epoch.
struct Job_Activity {
  static constexpr uint32_t MAGIC = 0x4b4a4131; // tells a record from an empty or foreign file

  uint32_t magic;
  uint32_t pid; // the process that runs the job; 0 when none does
  kestrel::Mapped_Value<Job_State> state;
  kestrel::Mapped_Value<int> progress; // percent
  unsigned char uid[16];               // the user whose job it is
  unsigned char uuid[16];              // of this run's backup, new for each run
  kestrel::Mapped_Value<time_t> start_time;
  kestrel::Mapped_Value<time_t> last_run_time;
  kestrel::Mapped_Value<time_t> end_time;
  kestrel::Mapped_Value<uint64_t> original_size;  // bytes read from the source
  kestrel::Mapped_Value<uint64_t> processed_size; // bytes moved so far
  kestrel::Mapped_Value<uint64_t> storage_size;   // bytes in storage
  kestrel::Mapped_Value<uint64_t> progress_total; // bytes or items, as the job counts
  kestrel::Mapped_Value<uint64_t> progress_done;
};

static_assert(std::is_trivially_copyable<Job_Activity>::value, "an activity record is a file format");

/// Where the activity record of a job lives.
class Job_Activity_Path_Conf
{
public:
  /// The file of a definition's record; its directory is made when it is missing.
  static std::string path(const std::string& definition_id);
};

namespace kestrel
{
/// The untyped part of Mem_Map_Handle: maps a file of fixed size, shared, for one owner at a time.
/// Errors: when the file cannot be had (no directory, no space, owned by another process), the bytes are
///         plain memory of this process: the job runs all the same and one line in the log tells where and
///         why.
class Mapped_File
{
public:
  Mapped_File() = default;
  ~Mapped_File();
  Mapped_File(const Mapped_File&) = delete;
  Mapped_File& operator=(const Mapped_File&) = delete;

  void open(const std::string& path, std::size_t size_bytes);
  void close();
  /// Never null after open().
  void* data() const { return data_; }
  bool on_disk() const { return handle_ >= 0; }
  const std::string& path() const { return path_; }
  /// Starts writing the bytes to the disk; 0, or -1 and errno. Without a file there is nothing to do: 0.
  int sync();
  /// Removes the file; the bytes stay until close().
  void remove();

private:
  std::string map(const std::string& path, std::size_t size_bytes);

  std::string path_;
  void* data_ = nullptr;
  std::size_t size_bytes_ = 0;
  int handle_ = -1;
  bool busy_ = false;
};
} // namespace kestrel

/// A record of type T in a mapped file of size_bytes, whose place Path_Conf_Type gives.
/// Threads: open and close by one thread; the record's fields look after themselves.
template <class T, class Path_Conf_Type, unsigned size_bytes> class Mem_Map_Handle
{
public:
  static_assert(sizeof(T) <= size_bytes, "the record does not fit");

  explicit Mem_Map_Handle(const std::string& name) { file_.open(Path_Conf_Type::path(name), size_bytes); }

  T* get() const { return static_cast<T*>(file_.data()); }
  T* operator->() const { return get(); }
  kestrel::Mapped_File& file() { return file_; }

private:
  kestrel::Mapped_File file_;
};
