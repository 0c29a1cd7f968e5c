// A backup server in this process, reached over HTTPS on the loopback device: durable catalog commits (wanted: 200
// a second, from one host and from four), and the speed of an upload beside that of a pool on this host.

#include "catalog/backup_set.h"
#include "catalog/sql_back_end.h"
#include "remote/remote_catalog.h"
#include "remote/remote_storage.h"
#include "rpc/http_server.h"
#include "server/catalog_resources.h"
#include "server/pool_resources.h"
#include "server/storage_resources.h"
#include "server/tls_setup.h"
#include "storage/client_io.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

namespace
{
using namespace kestrel;

const size_t FILE_BYTES = 256u << 20;
const unsigned WRITE_BYTES = 64 * 1024;

void demand(bool good, const std::string& error)
{
  if (good)
    return;
  std::fprintf(stderr, "%s\n", error.c_str());
  std::exit(1);
}

class Bench_Server
{
public:
  Bench_Server()
  {
    const char* const root = std::getenv("KESTREL_BENCH_DIR");
    std::string pattern = std::string(root ? root : "/tmp") + "/remote_bench_XXXXXX";
    demand(::mkdtemp(&pattern[0]) != nullptr, "cannot make " + pattern);
    directory_ = pattern;
    Catalog_Place place;
    place.path = directory_ + "/catalog.db";
    const auto catalog = std::make_shared<Sql_Back_End>(place, true);
    const Pool_Registry pools(directory_ + "/pools.json");
    std::string error;
    std::filesystem::create_directory(directory_ + "/pool");
    demand(Pool_Registry(pools).add("main", directory_ + "/pool", pool_, error), error);
    catalogs_ = std::make_unique<Catalog_Resources>(
        catalog, [this](const std::string& pool_id, const std::string& folder, const std::string& name) {
          return storage_->uploads().sender(pool_id, folder, name);
        });
    storage_ = std::make_unique<Storage_Resources>(pools, catalog, directory_ + "/uploads");
    catalogs_->add_to(router_);
    storage_->add_to(router_);
    router_.set_authenticator([](const REST_Request&, REST_Caller& caller, std::string&) {
      caller.kind = REST_Caller::agent;
      caller.uuid = caller.name = "host";
      caller.role = "agent";
      return true;
    });
    listen();
  }

  ~Bench_Server()
  {
    http_.stop(0);
    std::filesystem::remove_all(directory_);
  }

  std::shared_ptr<REST_Client> client() const
  {
    REST_Client_Options options;
    options.url = "https://127.0.0.1:" + std::to_string(http_.port());
    options.ca_pem = ca_.certificate;
    options.access_key = "host.key";
    return std::make_shared<REST_Client>(options);
  }

  const Pool_Info& pool() const { return pool_; }

private:
  void listen()
  {
    std::string error;
    TLS_Pair server;
    demand(make_ca(ca_, error) && make_server_certificate(ca_, {{}, {"127.0.0.1"}}, server, error), error);
    HTTP_Server_Options options;
    options.address = "127.0.0.1";
    options.certificate_file = directory_ + "/server.crt";
    options.key_file = directory_ + "/server.key";
    std::ofstream(options.certificate_file) << server.certificate;
    std::ofstream(options.key_file) << server.key;
    demand(http_.start(
               options,
               [this](REST_Request& request, const std::string& target) { return router_.handle(request, target); },
               error),
           error);
  }

  std::string directory_;
  Pool_Info pool_;
  TLS_Pair ca_;
  std::unique_ptr<Catalog_Resources> catalogs_;
  std::unique_ptr<Storage_Resources> storage_;
  REST_Router router_;
  HTTP_Server http_;
};

Bench_Server& server()
{
  static Bench_Server server;
  return server;
}

Backup_Record make_record(uint64_t number)
{
  Oscar_Brcmd_Backup_Set set;
  const std::string id = "set-" + std::to_string(number);
  set.set_uuid(id);
  set.set_backup_id(id);
  set.set_resource_uuid("resource");
  set.set_type("full");
  set.set_name("nightly backup of a database");
  set.set_backup_file(id + ".bak.zst");
  set.set_storage_checksum("0123456789abcdef0123456789abcdef");
  set.add_storage(Backup_Set_Storage("pool", 1u << 29));
  set.add_piece(id + ".bak.zst", 0);
  return set.record();
}

std::atomic<uint64_t> next_number{0};

void commits(benchmark::State& state)
{
  Remote_Catalog catalog(server().client(), false);
  for (auto step : state) {
    std::string warning, error;
    if (catalog.commit(make_record(++next_number), true, warning, error) != Catalog_Status::done) {
      state.SkipWithError(error.c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(commits)->Threads(1)->Threads(4)->UseRealTime()->Iterations(300);

void queries(benchmark::State& state)
{
  Remote_Catalog catalog(server().client(), false);
  for (auto step : state) {
    json_spirit::Value result;
    std::string error;
    if (catalog.get_view("oscar_brcmd", "catalogs", {{"limit", 1}}, result, error) != Catalog_Status::done) {
      state.SkipWithError(error.c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(queries)->Threads(1)->UseRealTime();

const std::string& content()
{
  static const std::string bytes = [] {
    std::mt19937_64 random(1);
    std::string made(1u << 20, '\0');
    for (size_t i = 0; i < made.size(); i += 8) {
      const uint64_t word = random();
      made.replace(i, 8, reinterpret_cast<const char*>(&word), 8);
    }
    return made;
  }();
  return bytes;
}

Client_IO_Base::Options place(bool served)
{
  Client_IO_Base::Options options;
  options.back_end = served ? SERVER_STORAGE : "";
  options.storage_path = served ? "/" + server().pool().pool_id : server().pool().storage_path;
  if (served) {
    const auto client = server().client();
    register_storage_back_end(SERVER_STORAGE, [client] { return std::make_unique<Remote_Back_End>(client, 60); });
  }
  return options;
}

void store(benchmark::State& state)
{
  const Client_IO_Base::Options options = place(state.range(0) != 0);
  for (auto step : state) {
    Client_IO_Ex client;
    bool good = client.connect(options.storage_path + "/source", options) && client.open("f", 2, 0, 0);
    for (size_t done = 0; good && done < FILE_BYTES; done += WRITE_BYTES)
      good = client.write(content().data() + done % content().size(), WRITE_BYTES);
    if (!good || !client.close())
      state.SkipWithError(client.error());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * FILE_BYTES));
}
BENCHMARK(store)->ArgName("served")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void fetch(benchmark::State& state)
{
  const Client_IO_Base::Options options = place(state.range(0) != 0);
  std::vector<char> buffer(WRITE_BYTES);
  for (auto step : state) {
    Client_IO_Ex client;
    bool good = client.connect(options.storage_path + "/source", options) && client.open("f", 1, 0, 0);
    int count = 1;
    while (good && count > 0)
      good = (count = client.read(buffer.data(), WRITE_BYTES)) >= 0;
    if (!good)
      state.SkipWithError(client.error());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * FILE_BYTES));
}
BENCHMARK(fetch)->ArgName("served")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3);
} // namespace
