// The first line of an input is "METHOD TARGET", the rest the body of a request that an agent sends. Then the input
// stands for a server's answer.

#include "catalog/sql_back_end.h"
#include "remote/remote_catalog.h"
#include "remote/remote_storage.h"
#include "server/catalog_resources.h"
#include "server/pool_resources.h"
#include "server/storage_resources.h"
#include "support/corpus.h"
#include "support/temp_dir.h"
#include "json/json_util.h"

#include <cstdlib>
#include <string>

using namespace kestrel;

namespace
{
void check(bool holds)
{
  if (!holds)
    ::abort();
}

class Server
{
public:
  Server()
  {
    Catalog_Place place;
    place.path = dir_ / "catalog.db";
    const auto catalog = std::make_shared<Sql_Back_End>(place);
    Pool_Registry pools(dir_ / "pools.json");
    std::string error;
    check(pools.add("main", dir_.make_dir("pool"), pool_, error));
    catalogs_ = std::make_unique<Catalog_Resources>(
        catalog, [this](const std::string& pool_id, const std::string& folder, const std::string& name) {
          return storage_->uploads().sender(pool_id, folder, name);
        });
    pool_resources_ = std::make_unique<Pool_Resources>(pools, catalog);
    storage_ = std::make_unique<Storage_Resources>(pools, catalog, dir_ / "uploads");
    catalogs_->add_to(router_);
    pool_resources_->add_to(router_);
    storage_->add_to(router_);
    router_.set_authenticator([](const REST_Request&, REST_Caller& caller, std::string&) {
      caller.kind = REST_Caller::agent;
      caller.uuid = caller.name = "host-1";
      caller.role = "agent";
      return true;
    });
  }

  REST_Reply handle(const std::string& text)
  {
    const size_t line_end = std::min(text.find('\n'), text.size());
    const std::string line = text.substr(0, line_end);
    const size_t blank = std::min(line.find(' '), line.size());
    REST_Request request;
    request.method = line.substr(0, blank);
    if (line_end < text.size())
      request.body = text.substr(line_end + 1);
    return router_.handle(request, blank < line.size() ? line.substr(blank + 1) : "/");
  }

private:
  kestrel_test::Temp_Dir dir_;
  Pool_Info pool_;
  std::unique_ptr<Catalog_Resources> catalogs_;
  std::unique_ptr<Pool_Resources> pool_resources_;
  std::unique_ptr<Storage_Resources> storage_;
  REST_Router router_;
};

/// Gives every request the same answer.
class Answering_Transport : public REST_Transport
{
public:
  bool perform(const REST_Call&, REST_Answer& answer, REST_Problem&) override
  {
    answer.status = 200;
    answer.body = body;
    return true;
  }
  std::string body;
};

void take_answer(const std::string& body)
{
  const auto transport = std::make_shared<Answering_Transport>();
  transport->body = body;
  REST_Client_Options options;
  options.url = "https://server";
  const auto client = std::make_shared<REST_Client>(options, transport);
  Remote_Catalog catalog(client, false);
  json_spirit::Value result;
  std::string error;
  // An answer that is always full would be asked for without end, so a part is.
  if (catalog.get_view("oscar", "catalogs", {{"limit", 3}}, result, error) == Catalog_Status::done)
    check(json_spirit::find_value(result.get_obj(), "rows").type() == json_spirit::array_type);
  else
    check(!error.empty() && result.is_null());
  std::vector<std::string> uuids;
  uint64_t count = 0;
  check(catalog.dependents("u", uuids, error) == Catalog_Status::done || !error.empty());
  check(catalog.count_by_pool("p", count, error) == Catalog_Status::done || !error.empty());

  Remote_Back_End storage(client, 1);
  Client_IO_Base::Options place;
  place.storage_path = "/pool";
  if (!storage.connect("/pool/folder", place, error))
    return;
  const auto file = storage.open("f", error);
  char bytes[100];
  if (file)
    check(file->read(bytes, sizeof bytes, error) <= static_cast<int>(sizeof bytes));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static Server server;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const REST_Reply reply = server.handle(text);
  check(reply.status >= 200 && reply.status < 600 && reply.status != 500);
  if (reply.status >= 400) {
    const json_spirit::Value& error = json_spirit::find_value(reply.json.get_obj(), "error");
    check(!json_spirit::find_value(error.get_obj(), "message").get_str().empty());
    check(write_json(reply.json).size() < (1u << 20));
  }
  const size_t line_end = text.find('\n');
  take_answer(line_end == std::string::npos ? text : text.substr(line_end + 1));
  return 0;
}
