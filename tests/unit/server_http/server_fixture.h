#pragma once

#include "server/accounts.h"
#include "server/audit.h"
#include "server/secrets.h"
#include "server/server_database.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrel_test
{
/// A new server database in a directory of its own.
class Server_Fixture : public testing::Test
{
protected:
  Server_Fixture()
  {
    kestrel::set_password_cost(10);
    kestrel::Server_Database::Options options;
    options.path = dir_ / "server.db";
    options.create = true;
    options.busy_timeout_msec = 50;
    options.lease_timeout_msec = 50;
    std::string error;
    EXPECT_TRUE(database_.open(options, error)) << error;
  }

  ~Server_Fixture() override { kestrel::set_password_cost(15); }

  Temp_Dir dir_;
  kestrel::Server_Database database_;
  kestrel::Accounts accounts_{database_};
  kestrel::Audit audit_{database_};
};

/// Status of the REST_Error that `work` throws; 0 when it throws none.
template <class Work> int status_of(Work work)
{
  try {
    work();
    return 0;
  } catch (const kestrel::REST_Error& error) {
    return error.status();
  }
}
} // namespace kestrel_test
