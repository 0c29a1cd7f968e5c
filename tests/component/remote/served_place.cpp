#include "served_place.h"

#include "catalog/sql_back_end.h"
#include "server/tls_setup.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

namespace kestrel_test
{
using namespace kestrel;

namespace
{
Sql_Back_End present()
{
  return Sql_Back_End(default_catalog_place());
}

/// Who a request comes from; false for nobody that is known.
bool identify(const REST_Request& request, REST_Caller& caller, std::string& problem)
{
  const auto key = request.headers.find("x-access-key");
  const auto token = request.headers.find("authorization");
  problem = "the key is not known";
  if (key != request.headers.end()) {
    const size_t dot = key->second.find('.');
    caller.kind = REST_Caller::agent;
    caller.uuid = caller.name = key->second.substr(0, dot);
    caller.role = "agent";
    return dot != std::string::npos && key->second.substr(dot) == ".key";
  }
  if (token == request.headers.end())
    return true;
  caller.kind = REST_Caller::user;
  caller.name = caller.role = token->second.substr(std::min<size_t>(token->second.size(), 7));
  return caller.role == "viewer" || caller.role == "operator" || caller.role == "admin";
}

Catalog_Place own_place(const std::string& path)
{
  Catalog_Place place;
  place.path = path;
  return place;
}
} // namespace

Catalog_Status Present_Catalog::get_view(const std::string& catalog, const std::string& view,
                                         const std::map<std::string, json_spirit::Value>& query,
                                         json_spirit::Value& result, std::string& error)
{
  return present().get_view(catalog, view, query, result, error);
}

Catalog_Status Present_Catalog::commit(const Backup_Record& record, bool must_be_new, std::string& warning,
                                       std::string& error)
{
  return present().commit(record, must_be_new, warning, error);
}

Catalog_Status Present_Catalog::set_state(const std::string& uuid, Set_State state, const std::string& reason,
                                          std::string& error)
{
  return present().set_state(uuid, state, reason, error);
}

Catalog_Status Present_Catalog::remove(const std::string& uuid, std::string& error)
{
  return present().remove(uuid, error);
}

Catalog_Status Present_Catalog::dependents(const std::string& uuid, std::vector<std::string>& uuids,
                                           std::string& error)
{
  return present().dependents(uuid, uuids, error);
}

Catalog_Status Present_Catalog::count_by_pool(const std::string& pool_uuid, uint64_t& count,
                                              std::string& error)
{
  return present().count_by_pool(pool_uuid, count, error);
}

Served_Place::Served_Place(std::shared_ptr<Catalog_Back_End> catalog)
    : catalog_(catalog ? catalog : std::make_shared<Sql_Back_End>(own_place(dir / "catalog.db"))),
      pools_(dir / "pools.json")
{
  build();
}

Served_Place::~Served_Place()
{
  stop();
}

void Served_Place::build()
{
  router_ = std::make_unique<REST_Router>();
  router_->set_authenticator(identify);
  catalogs_ = std::make_unique<Catalog_Resources>(
      catalog_, [this](const std::string& pool_id, const std::string& folder, const std::string& name) {
        return storage_->uploads().sender(pool_id, folder, name);
      });
  pool_resources_ = std::make_unique<Pool_Resources>(pools_, catalog_);
  storage_ = std::make_unique<Storage_Resources>(pools_, catalog_, dir / "uploads", limits);
  catalogs_->add_to(*router_);
  pool_resources_->add_to(*router_);
  storage_->add_to(*router_);
  backups_ = std::make_unique<Backup_Resources>(pools_, catalog_, storage_->reads());
  backups_->add_to(*router_);
}

void Served_Place::make_certificate(const std::string& address, bool known_ca, int64_t not_after)
{
  std::string error;
  TLS_Pair ca{ca_pem_, ca_key_};
  if (ca_pem_.empty() || !known_ca) {
    ASSERT_TRUE(make_ca(ca, error)) << error;
  }
  if (ca_pem_.empty()) {
    ca_pem_ = ca.certificate;
    ca_key_ = ca.key;
  }
  TLS_Names names;
  if (is_numeric_address(address))
    names.addresses.push_back(address);
  else
    names.names.push_back(address);
  TLS_Pair server;
  ASSERT_TRUE(make_server_certificate(ca, names, server, error, not_after)) << error;
  dir.write("server.crt", server.certificate);
  dir.write("server.key", server.key);
}

void Served_Place::listen()
{
  if (ca_pem_.empty())
    make_certificate("127.0.0.1");
  HTTP_Server_Options options;
  options.address = "127.0.0.1";
  options.port = port_;
  options.certificate_file = dir / "server.crt";
  options.key_file = dir / "server.key";
  http_ = std::make_unique<HTTP_Server>();
  std::string error;
  ASSERT_TRUE(http_->start(
      options, [this](REST_Request& request, const std::string& target) { return handle(request, target); },
      error))
      << error;
  port_ = http_->port();
}

void Served_Place::stop()
{
  if (http_)
    http_->stop(0);
  http_.reset();
}

void Served_Place::restart()
{
  const bool listening = http_ != nullptr;
  stop();
  router_.reset();
  backups_.reset();
  storage_.reset();
  build();
  if (listening)
    listen();
}

Pool_Info Served_Place::add_pool(const std::string& name, const std::string& directory)
{
  Pool_Info pool;
  std::string error;
  EXPECT_TRUE(pools_.add(name, directory.empty() ? dir.make_dir("pool_" + name) : directory, pool, error))
      << error;
  return pool;
}

void Served_Place::before(Hook hook)
{
  std::lock_guard<std::mutex> guard(lock_);
  before_ = std::move(hook);
}

void Served_Place::after(Reply_Hook hook)
{
  std::lock_guard<std::mutex> guard(lock_);
  after_ = std::move(hook);
}

REST_Reply Served_Place::handle(REST_Request& request, const std::string& target)
{
  Hook before;
  Reply_Hook after;
  {
    std::lock_guard<std::mutex> guard(lock_);
    before = before_;
    after = after_;
  }
  REST_Reply reply;
  request.path = target.substr(0, target.find('?'));
  if (!before || !before(request, reply))
    reply = router_->handle(request, target);
  if (after)
    after(request, reply);
  std::lock_guard<std::mutex> guard(lock_);
  requests_.push_back(request.method + " " + target.substr(0, target.find('?')) + " " +
                      std::to_string(reply.status));
  return reply;
}

std::vector<std::string> Served_Place::requests() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return requests_;
}

unsigned Served_Place::count(const std::string& beginning) const
{
  unsigned number = 0;
  for (const std::string& request : requests())
    number += request.compare(0, beginning.size(), beginning) == 0 ? 1 : 0;
  return number;
}

REST_Client_Options Served_Place::client_options(const std::string& host) const
{
  REST_Client_Options options;
  options.url = url();
  options.ca_pem = ca_pem_;
  options.access_key = host + ".key";
  return options;
}

Upstream_Options Served_Place::upstream_options(const std::string& host) const
{
  Upstream_Options options;
  options.url = url();
  options.ca_pem = ca_pem_;
  options.access_key = host + ".key";
  return options;
}

bool Direct_Transport::take(const REST_Call& call, Plan& plan)
{
  std::lock_guard<std::mutex> guard(lock_);
  ++seen_;
  const std::string text = std::string(call.method) + " " + call.path;
  for (auto each = plans_.begin(); each != plans_.end(); ++each) {
    if (each->number != 0 ? each->number != seen_
                          : text.compare(0, each->beginning.size(), each->beginning) != 0)
      continue;
    plan = *each;
    if (--each->times == 0)
      plans_.erase(each);
    return true;
  }
  return false;
}

bool Direct_Transport::perform(const REST_Call& call, REST_Answer& answer, REST_Problem& problem)
{
  Plan plan;
  const bool planned = take(call, plan);
  if (call.stopped && *call.stopped) {
    problem.kind = REST_Problem::stopped;
    problem.text = "given up";
    return false;
  }
  const auto lose = [&](REST_Problem::Kind kind, const char* text) {
    if (plan.meanwhile)
      plan.meanwhile();
    problem.kind = kind;
    problem.text = text;
    return false;
  };
  if (planned && plan.fault == unreachable)
    return lose(REST_Problem::unreachable, "cannot reach the server");
  if (planned && plan.fault == lost_before)
    return lose(REST_Problem::lost, "the connection was lost");
  REST_Request request;
  request.method = call.method;
  request.headers["x-access-key"] = host_ + ".key";
  request.headers["content-type"] = call.content_type;
  for (const auto& [name, value] : call.headers)
    request.headers[name] = value;
  request.body.assign(static_cast<const char*>(call.body), static_cast<size_t>(call.body_bytes));
  const REST_Reply reply = place_.handle(request, call.path);
  if (planned)
    return lose(REST_Problem::lost, "the connection was lost");
  answer.status = reply.status;
  answer.content_type = reply.content_type;
  answer.body = reply.raw.empty() && !reply.json.is_null() ? write_json(reply.json) : reply.raw;
  return true;
}

void Direct_Transport::fail(const std::string& beginning, Fault fault, unsigned times,
                            std::function<void()> meanwhile)
{
  std::lock_guard<std::mutex> guard(lock_);
  plans_.push_back({beginning, 0, fault, times, std::move(meanwhile)});
}

void Direct_Transport::fail_number(unsigned number, Fault fault, std::function<void()> meanwhile)
{
  std::lock_guard<std::mutex> guard(lock_);
  plans_.push_back({"", seen_ + number, fault, 1, std::move(meanwhile)});
}

unsigned Direct_Transport::requests() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return seen_;
}
} // namespace kestrel_test
