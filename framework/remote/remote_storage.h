#pragma once

#include "remote/rest_client.h"
#include "storage/back_end.h"

#include <atomic>
#include <memory>
#include <string>

namespace kestrel
{
/// The name that pools of a backup server carry in Pool_Info::back_end on other hosts.
extern const char SERVER_STORAGE[];

/// What all files of one connection share.
struct Storage_Link {
  std::shared_ptr<REST_Client> client;
  /// How long a server that does not answer is waited for, each time that it does not.
  unsigned retry_seconds = 0;
  /// For one attempt to move one piece.
  unsigned transfer_seconds = 60;
  /// What is sent in one piece, and sent again when the connection is lost.
  unsigned piece_bytes = 0;
  std::string pool_id;
  std::string folder;
};

/// Pools that lie on the backup server, over REST. There the directory back end keeps the files: temporary
/// name, side file, rename, all durable, are as for a pool of this host.
///
/// A file is sent in pieces, each with its place. What the server has confirmed it still has after a restart;
/// the piece under way is kept here until it is confirmed, so that after a lost connection or a restart of the
/// server writing goes on where the server's file ends. max_seconds_retry says how long a server that does not
/// answer is waited for (0: DEFAULT_RETRY_SECONDS), resumption_buffer_size how large a piece may be (0: 4 MiB;
/// at least 64 KiB, at most 8 MiB).
///
/// Threads, errors: as Storage_Back_End; interrupt() of its files ends every wait.
/// Limits:  pieces that take longer than transfer_seconds count as lost.
/// Crash:   of this process: the server keeps the unfinished file as such for some hours and then removes it.
class Remote_Back_End : public Storage_Back_End
{
public:
  static constexpr unsigned DEFAULT_RETRY_SECONDS = 300;

  Remote_Back_End(std::shared_ptr<REST_Client> client, unsigned transfer_seconds);

  bool connect(const std::string& location, const Client_IO_Base::Options& options,
               std::string& error) override;
  std::unique_ptr<Stored_File_Writer> create(const std::string& name, bool overwrite,
                                             std::string& error) override;
  std::unique_ptr<Stored_File_Reader> open(const std::string& name, std::string& error) override;
  bool remove(const std::string& name, std::string& error) override;

private:
  Storage_Link link_;
};
} // namespace kestrel
