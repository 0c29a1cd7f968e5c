#include "remote/remote_files.h"

#include "base/clock.h"
#include "base/uuid.h"
#include "json/json_util.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

namespace kestrel
{
namespace
{
using json_spirit::Object;
using json_spirit::Value;

const int64_t FIRST_PAUSE_MSEC = 100;
const int64_t LONGEST_PAUSE_MSEC = 5000;
/// Less than this is not sent at once, however slow the network is.
const unsigned LEAST_SENT_BYTES = 64u << 10;
/// The server may have to wait for its disk.
const unsigned COMMIT_SECONDS = 300;
/// For a farewell that the server can do without: it finds out by itself in time.
const unsigned FAREWELL_SECONDS = 5;

class Remote_Writer : public Stored_File_Writer
{
public:
  Remote_Writer(const Storage_Link& link, const std::string& name)
      : link_(link), path_(link.pool_id + "/" + link.folder + "/" + name), upload_(make_uuid())
  {
  }

  ~Remote_Writer() override
  {
    if (begun_ && !ended_)
      say_farewell(true);
  }

  bool begin(const std::string& name, bool overwrite, std::string& error)
  {
    piece_.reset(new (std::nothrow) char[link_.piece_bytes]);
    most_sent_ = link_.piece_bytes;
    if (!piece_)
      return fail(error, "not enough memory");
    const Value body = Object{{"upload", upload_},       {"pool", link_.pool_id},
                              {"folder", link_.folder},  {"name", name},
                              {"overwrite", overwrite},  {"keep_seconds", link_.retry_seconds}};
    REST_Call call = request("POST", {"uploads"});
    call.retry = {link_.retry_seconds, true};
    Value reply;
    REST_Problem problem;
    begun_ = true;
    if (link_.client->call(call, &body, reply, problem))
      return true;
    ended_ = problem.kind == REST_Problem::refused;
    fail(error, problem.text);
    errno = problem.code == "name_taken" ? EEXIST : EIO;
    return false;
  }

  bool write(const void* data, unsigned n, std::string& error) override
  {
    const char* next = static_cast<const char*>(data);
    while (n > 0) {
      const unsigned taken = std::min(n, link_.piece_bytes - filled_);
      std::memcpy(piece_.get() + filled_, next, taken);
      filled_ += taken;
      next += taken;
      n -= taken;
      if (filled_ == link_.piece_bytes && !send_piece(error))
        return false;
    }
    return true;
  }

  bool commit(const std::string& side_file, std::string& error) override
  {
    if (!send_piece(error))
      return false;
    const Value body = Object{{"size", piece_begin_}, {"side_file", side_file}};
    REST_Call call = request("POST", {"uploads", upload_, "commit"});
    call.seconds = std::max(link_.transfer_seconds, COMMIT_SECONDS);
    call.retry = {link_.retry_seconds, true};
    Value reply;
    REST_Problem problem;
    if (!link_.client->call(call, &body, reply, problem))
      return fail(error, problem.text);
    ended_ = true;
    return true;
  }

  void discard() override
  {
    if (begun_ && !ended_)
      say_farewell(false);
    ended_ = true;
  }

  void interrupt() override { stopped_ = true; }

private:
  bool fail(std::string& error, const std::string& reason) const
  {
    error = "cannot store " + path_ + ": " + reason;
    return false;
  }

  REST_Call request(const char* method, const std::vector<std::string>& path) const
  {
    REST_Call call;
    call.method = method;
    call.path = rest_path(path);
    call.seconds = link_.transfer_seconds;
    call.stopped = &stopped_;
    return call;
  }

  /// Tells the server that this file will not be finished, and whether what is there shall stay.
  void say_farewell(bool keep)
  {
    REST_Call call = request("DELETE", {"uploads", upload_});
    call.path += keep ? "?keep=1" : "?keep=0";
    call.seconds = FAREWELL_SECONDS;
    call.stopped = nullptr;
    // A discarded file should be gone when the caller looks.
    call.retry = {keep ? 0 : FAREWELL_SECONDS, true};
    Value reply;
    REST_Problem problem;
    try {
      const bool told = link_.client->call(call, nullptr, reply, problem);
      static_cast<void>(told);
    } catch (const std::exception&) {
      // The server gives the file up by itself when nothing comes any more.
    }
  }

  uint64_t piece_end() const { return piece_begin_ + filled_; }

  /// Brings what is gathered to the server, however often the connection is lost.
  bool send_piece(std::string& error)
  {
    uint64_t stored = piece_begin_;
    int64_t give_up = 0;
    int64_t wait = FIRST_PAUSE_MSEC;
    while (stored < piece_end()) {
      REST_Problem problem;
      const uint64_t before = stored;
      if (!put(stored, problem)) {
        if (!is_passing(problem) && problem.code != "offset")
          return fail(error, problem.text);
        if (give_up == 0 || stored > before) {
          give_up = clock().monotonic_msec() + int64_t(link_.retry_seconds) * 1000;
          wait = FIRST_PAUSE_MSEC;
        }
        if (!recover(give_up, wait, stored, problem))
          return fail(error, problem.text);
        // A network too slow for the whole may be fast enough for a part.
        most_sent_ = std::max(LEAST_SENT_BYTES, most_sent_ / 2);
      } else
        most_sent_ = std::min(link_.piece_bytes, 2 * most_sent_);
      if (stored < piece_begin_ || stored > piece_end())
        return fail(error, "the server's unfinished file has " + std::to_string(stored) + " bytes instead of " +
                               std::to_string(piece_end()) + "; run the job again");
      if (stored > before)
        give_up = 0;
    }
    piece_begin_ = stored;
    filled_ = 0;
    return true;
  }

  /// Sends the rest of the piece from `stored` on; true with the new end of the server's file.
  bool put(uint64_t& stored, REST_Problem& problem)
  {
    REST_Call call = request("PUT", {"uploads", upload_, "bytes"});
    call.path += "?offset=" + std::to_string(stored);
    call.body = piece_.get() + (stored - piece_begin_);
    call.body_bytes = std::min<uint64_t>(most_sent_, piece_end() - stored);
    call.has_body = true;
    call.content_type = "application/octet-stream";
    return take_offset(call, stored, problem);
  }

  /// Asks, with pauses, until the server tells how much it has; false when the time is over.
  bool recover(int64_t give_up, int64_t& wait, uint64_t& stored, REST_Problem& problem)
  {
    for (;;) {
      const int64_t left = give_up - clock().monotonic_msec();
      if (left <= 0 || !pause_unless(&stopped_, std::min(wait, left))) {
        problem.text += " (waited for the server for " + std::to_string(link_.retry_seconds) + " s)";
        return false;
      }
      wait = std::min(2 * wait, LONGEST_PAUSE_MSEC);
      REST_Call call = request("GET", {"uploads", upload_});
      REST_Problem why;
      if (take_offset(call, stored, why))
        return true;
      problem = why;
      if (!is_passing(why))
        return false;
    }
  }

  bool take_offset(const REST_Call& call, uint64_t& stored, REST_Problem& problem)
  {
    try {
      Value reply;
      if (!link_.client->call(call, nullptr, reply, problem))
        return false;
      stored = required<uint64_t>(reply.get_obj(), "offset");
      return true;
    } catch (const std::exception& failure) {
      problem = {REST_Problem::unusable, 0, "",
                 "the answer of " + link_.client->url() + " cannot be used: " + failure.what()};
      return false;
    }
  }

  const Storage_Link link_;
  const std::string path_;
  const std::string upload_;
  std::atomic<bool> stopped_{false};
  bool begun_ = false;
  bool ended_ = false;
  /// What the server has not confirmed yet, and where in the file that begins.
  std::unique_ptr<char[]> piece_;
  unsigned filled_ = 0;
  unsigned most_sent_ = 0;
  uint64_t piece_begin_ = 0;
};
} // namespace

std::unique_ptr<Stored_File_Writer> create_remote_file(const Storage_Link& link, const std::string& name,
                                                       bool overwrite, std::string& error)
{
  try {
    auto writer = std::make_unique<Remote_Writer>(link, name);
    if (writer->begin(name, overwrite, error))
      return writer;
    const int failure = errno;
    writer.reset();
    errno = failure;
  } catch (const std::exception& failure) {
    error = failure.what();
    errno = EIO;
  }
  return nullptr;
}
} // namespace kestrel
