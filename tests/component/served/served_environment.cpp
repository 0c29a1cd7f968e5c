#include "component/remote/served_place.h"

#include "remote/remote_catalog.h"
#include "remote/remote_storage.h"
#include "storage/back_end.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <mutex>

// The tests of the local catalog and of directory pools, once more: here every catalog operation and every stored
// file takes the way over HTTPS to a server in this process, which keeps them where the tests look for them.

namespace kestrel_test
{
namespace
{
using namespace kestrel;

/// Takes folders of this host for folders of the server's pools; a directory that is none yet becomes one.
class Served_Directory : public Storage_Back_End
{
public:
  Served_Directory(Served_Place& place, std::shared_ptr<REST_Client> client)
      : place_(place), remote_(std::move(client), 60)
  {
  }

  bool connect(const std::string& location, const Client_IO_Base::Options& options, std::string& error) override
  {
    std::string pool_path = options.storage_path;
    if (pool_path.empty())
      pool_path = location.substr(0, location.rfind('/'));
    Client_IO_Base::Options served = options;
    served.storage_path = "/" + pool_id(pool_path);
    served.resumption_buffer_size = 64 * 1024;
    const std::string folder = location.size() > pool_path.size() + 1 ? location.substr(pool_path.size()) : "/";
    return remote_.connect(served.storage_path + folder, served, error);
  }

  std::unique_ptr<Stored_File_Writer> create(const std::string& name, bool overwrite, std::string& error) override
  {
    return remote_.create(name, overwrite, error);
  }

  std::unique_ptr<Stored_File_Reader> open(const std::string& name, std::string& error) override
  {
    return remote_.open(name, error);
  }

  bool remove(const std::string& name, std::string& error) override { return remote_.remove(name, error); }

private:
  std::string pool_id(const std::string& path)
  {
    static std::map<std::string, std::string> ids;
    std::string& id = ids[path];
    Pool_Info pool;
    std::string error;
    if (id.empty() && place_.pools().add("pool" + std::to_string(ids.size()), path, pool, error))
      id = pool.pool_id;
    return id.empty() ? "none" : id;
  }

  Served_Place& place_;
  Remote_Back_End remote_;
};

/// Reads and adds as an agent, changes and removes as an administrator: a host's tests do both.
class Served_Catalog : public Remote_Catalog
{
public:
  Served_Catalog(std::shared_ptr<REST_Client> agent, std::shared_ptr<REST_Client> admin)
      : Remote_Catalog(std::move(agent), false), admin_(std::move(admin), false)
  {
  }

  Catalog_Status set_state(const std::string& uuid, Set_State state, const std::string& reason,
                           std::string& error) override
  {
    return admin_.set_state(uuid, state, reason, error);
  }

  Catalog_Status remove(const std::string& uuid, std::string& error) override
  {
    return admin_.remove(uuid, error);
  }

private:
  Remote_Catalog admin_;
};

class Served_Environment : public testing::Environment
{
public:
  void SetUp() override
  {
    place_ = std::make_unique<Served_Place>(std::make_shared<Present_Catalog>());
    place_->listen();
    std::string error;
    ASSERT_TRUE(register_upstream(place_->upstream_options(), error)) << error;
    const auto client = std::make_shared<REST_Client>(place_->client_options());
    REST_Client_Options admin = place_->client_options();
    admin.access_key.clear();
    admin.bearer = "admin";
    register_catalog_back_end(std::make_shared<Served_Catalog>(client, std::make_shared<REST_Client>(admin)));
    register_storage_back_end(
        "", [this, client] { return std::make_unique<Served_Directory>(*place_, client); });
  }

  void TearDown() override
  {
    EXPECT_LT(1000u, place_->requests().size()) << "the tests did not come by here";
    register_storage_back_end("", nullptr);
    unregister_upstream();
    place_.reset();
  }

private:
  std::unique_ptr<Served_Place> place_;
};

// Left out: texts that begin otherwise here, and what the mapping above makes of odd locations.
// Before the test framework reads it.
__attribute__((constructor(101))) void leave_out()
{
  ::setenv("GTEST_FILTER",
           "-Catalog_Commit.administration_of_unknown_sets_fails_clearly:"
           "Client_IO_Test.replaces_a_file_only_when_overwriting_is_allowed:"
           "Client_IO_Test.tells_why_it_cannot_connect:"
           "Client_IO_Test.notices_a_pool_that_vanishes_after_connecting:"
           "Client_IO_Test.refuses_locations_that_leave_the_pool",
           0);
}

const testing::Environment* const environment = testing::AddGlobalTestEnvironment(new Served_Environment);
} // namespace
} // namespace kestrel_test
