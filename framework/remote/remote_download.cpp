#include "remote/remote_files.h"

#include "json/json_util.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>

namespace kestrel
{
namespace
{
using json_spirit::Value;

const unsigned PIECE_BYTES = 2u << 20;
/// Reads at any place ask for at least this much: they tend to be small and near to each other.
const unsigned WINDOW_BYTES = 256u << 10;

/// A piece of the file and where it begins.
struct Piece {
  uint64_t begin = 0;
  std::string bytes;

  bool holds(uint64_t offset) const { return offset >= begin && offset - begin < bytes.size(); }
};

class Remote_Reader : public Stored_File_Reader
{
public:
  Remote_Reader(const Storage_Link& link, const std::string& name)
      : link_(link), name_(name), path_(link.pool_id + "/" + link.folder + "/" + name)
  {
  }

  ~Remote_Reader() override
  {
    interrupt();
    if (ahead_.joinable())
      ahead_.join();
  }

  bool ask(std::string& error)
  {
    REST_Call call = request({"storage", link_.pool_id, link_.folder, name_}, {});
    Value reply;
    REST_Problem problem;
    if (!link_.client->call(call, nullptr, reply, problem)) {
      fail(error, problem);
      errno = problem.status == 404 ? ENOENT : problem.kind == REST_Problem::refused ? EIO : EHOSTUNREACH;
      return false;
    }
    errno = EIO;
    size_ = required<uint64_t>(reply.get_obj(), "size");
    side_file_ = required<std::string>(reply.get_obj(), "side_file");
    version_ = required<std::string>(reply.get_obj(), "version");
    return true;
  }

  const std::string& side_file() const override { return side_file_; }
  uint64_t size() const override { return size_; }
  const std::string& path() const override { return path_; }
  bool can_read_at() const override { return true; }

  int read(void* data, unsigned n, std::string& error) override
  {
    unsigned done = 0;
    n = std::min<unsigned>(n, std::numeric_limits<int>::max());
    while (done < n && next_ < size_) {
      if (!piece_.holds(next_) && !take_piece(error))
        return -1;
      done += copy(piece_, next_, static_cast<char*>(data) + done, n - done);
    }
    return static_cast<int>(done);
  }

  int read_at(uint64_t offset, void* data, unsigned n, std::string& error) override
  {
    unsigned done = 0;
    n = std::min<unsigned>(n, std::numeric_limits<int>::max());
    while (done < n && offset < size_) {
      if (!window_.holds(offset) && !fetch(offset, std::clamp(n - done, WINDOW_BYTES, PIECE_BYTES), window_, error))
        return -1;
      done += copy(window_, offset, static_cast<char*>(data) + done, n - done);
    }
    return static_cast<int>(done);
  }

  void interrupt() override
  {
    stopped_ = true;
    std::lock_guard<std::mutex> guard(lock_);
    changed_.notify_all();
  }

private:
  void fail(std::string& error, const REST_Problem& problem) const
  {
    error = "cannot read " + path_ + ": " + problem.text;
  }

  REST_Call request(const std::vector<std::string>& path,
                    const std::vector<std::pair<std::string, std::string>>& query) const
  {
    REST_Call call;
    call.path = rest_path(path, query);
    call.seconds = link_.transfer_seconds;
    call.retry = {link_.retry_seconds, true};
    call.stopped = &stopped_;
    return call;
  }

  /// Moves `offset` on by what was copied.
  static unsigned copy(const Piece& piece, uint64_t& offset, char* target, unsigned n)
  {
    const size_t from = static_cast<size_t>(offset - piece.begin);
    const unsigned count = static_cast<unsigned>(std::min<size_t>(n, piece.bytes.size() - from));
    std::memcpy(target, piece.bytes.data() + from, count);
    offset += count;
    return count;
  }

  bool fetch(uint64_t offset, unsigned n, Piece& piece, std::string& error) const
  {
    const uint64_t wanted = std::min<uint64_t>(n, size_ - offset);
    REST_Call call = request({"storage", link_.pool_id, link_.folder, name_, "bytes"},
                             {{"offset", std::to_string(offset)},
                              {"length", std::to_string(wanted)},
                              {"version", version_}});
    REST_Answer answer;
    REST_Problem problem;
    if (!link_.client->exchange(call, answer, problem)) {
      fail(error, problem);
      return false;
    }
    if (answer.body.size() != wanted) {
      problem.text = "the server sent " + std::to_string(answer.body.size()) + " bytes instead of " +
                     std::to_string(wanted) + "; check that a backup server listens there";
      fail(error, problem);
      return false;
    }
    piece.begin = offset;
    piece.bytes = std::move(answer.body);
    return true;
  }

  /// The piece at next_, from the thread that reads ahead once there is more than one piece to read.
  bool take_piece(std::string& error)
  {
    if (!ahead_.joinable()) {
      if (!fetch(next_, PIECE_BYTES, piece_, error))
        return false;
      start_ahead(piece_.begin + piece_.bytes.size());
      return true;
    }
    std::unique_lock<std::mutex> guard(lock_);
    changed_.wait(guard, [this] { return ready_ || stopped_; });
    if (!ready_ || !ahead_error_.empty()) {
      error = ready_ ? ahead_error_ : "reading " + path_ + " was stopped";
      return false;
    }
    piece_ = std::move(coming_);
    ready_ = false;
    changed_.notify_all();
    return true;
  }

  void start_ahead(uint64_t offset)
  {
    if (offset >= size_)
      return;
    try {
      ahead_ = std::thread([this, offset] { read_ahead(offset); });
    } catch (const std::system_error&) {
      // Without the thread every piece is fetched when it is needed.
    }
  }

  void read_ahead(uint64_t offset)
  {
    while (offset < size_ && !stopped_) {
      Piece piece;
      std::string error;
      try {
        if (fetch(offset, PIECE_BYTES, piece, error))
          offset += piece.bytes.size();
      } catch (const std::exception& failure) {
        error = failure.what();
      }
      std::unique_lock<std::mutex> guard(lock_);
      changed_.wait(guard, [this] { return !ready_ || stopped_; });
      if (stopped_)
        return;
      coming_ = std::move(piece);
      ahead_error_ = error;
      ready_ = true;
      changed_.notify_all();
      if (!error.empty())
        return;
    }
  }

  const Storage_Link link_;
  const std::string name_;
  const std::string path_;
  uint64_t size_ = 0;
  std::string side_file_;
  /// Of the file's content, so that pieces of two files are never put together.
  std::string version_;
  std::atomic<bool> stopped_{false};
  uint64_t next_ = 0;
  Piece piece_;
  Piece window_;
  std::thread ahead_;
  // Between this thread and the one that reads ahead.
  std::mutex lock_;
  std::condition_variable changed_;
  Piece coming_;
  std::string ahead_error_;
  bool ready_ = false;
};
} // namespace

std::unique_ptr<Stored_File_Reader> open_remote_file(const Storage_Link& link, const std::string& name,
                                                     std::string& error)
{
  try {
    auto reader = std::make_unique<Remote_Reader>(link, name);
    if (reader->ask(error))
      return reader;
  } catch (const std::exception& failure) {
    error = "cannot read " + name + ": the answer of " + link.client->url() +
            " cannot be used: " + failure.what();
    errno = EHOSTUNREACH;
  }
  return nullptr;
}
} // namespace kestrel
