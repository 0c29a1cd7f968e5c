#pragma once

#include "server/server_database.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

namespace kestrel_test
{
/// A server's database of its own, in a temporary directory.
class Server_Store
{
public:
  Server_Store() { open(); }

  /// As a server that starts again.
  void open()
  {
    database_.reset(new kestrel::Server_Database);
    kestrel::Server_Database::Options options;
    options.path = directory_ / "server.db";
    options.create = true;
    std::string error;
    EXPECT_TRUE(database_->open(options, error)) << error;
  }
  void enroll(const std::string& uuid, const std::string& name)
  {
    kestrel::Server_Database::Lease session = database_->lease();
    *session << "INSERT INTO host (uuid, name, key_hash, enrolled_at) VALUES (:u, :n, 'hash', 1)",
        soci::use(uuid, "u"), soci::use(name, "n");
  }
  kestrel::Server_Database& database() { return *database_; }

private:
  const Temp_Dir directory_;
  std::unique_ptr<kestrel::Server_Database> database_;
};
} // namespace kestrel_test
