#pragma once

#include "catalog/catalog_back_end.h"
#include "remote/rest_client.h"
#include "remote/upstream.h"
#include "rpc/http_server.h"
#include "rpc/rest_router.h"
#include "server/backup_resources.h"
#include "server/catalog_resources.h"
#include "server/pool_resources.h"
#include "server/storage_resources.h"
#include "support/temp_dir.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
/// The local catalog at wherever the environment says at the time of each call.
class Present_Catalog : public kestrel::Catalog_Back_End
{
public:
  kestrel::Catalog_Status get_view(const std::string& catalog, const std::string& view,
                                   const std::map<std::string, json_spirit::Value>& query,
                                   json_spirit::Value& result, std::string& error) override;
  kestrel::Catalog_Status commit(const kestrel::Backup_Record& record, bool must_be_new, std::string& warning,
                                 std::string& error) override;
  kestrel::Catalog_Status set_state(const std::string& uuid, kestrel::Set_State state,
                                    const std::string& reason, std::string& error) override;
  kestrel::Catalog_Status remove(const std::string& uuid, std::string& error) override;
  kestrel::Catalog_Status dependents(const std::string& uuid, std::vector<std::string>& uuids,
                                     std::string& error) override;
  kestrel::Catalog_Status count_by_pool(const std::string& pool_uuid, uint64_t& count,
                                        std::string& error) override;
};

/// The part of a backup server that this area is about: catalog, pools and storage behind the real router
/// and, once listen() was called, the real HTTPS server with a certificate of its own CA.
///
/// Whoever sends the access key "HOST.key" is the agent of that host, whatever its name; the bearer tokens
/// "viewer", "operator" and "admin" are users of that role; everything else is refused.
/// Threads: one owner; requests from any.
class Served_Place
{
public:
  /// Without a catalog the server gets one of its own.
  explicit Served_Place(std::shared_ptr<kestrel::Catalog_Back_End> catalog = nullptr);
  ~Served_Place();

  /// Listens on 127.0.0.1, after a stop() on the same port as before.
  void listen();
  void stop();
  /// As a server that was killed and started again: nothing that it had in memory is left.
  void restart();
  unsigned short port() const { return port_; }
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_); }
  const std::string& ca_pem() const { return ca_pem_; }
  /// Writes another certificate for the next listen(): for this name, signed by the known CA or another one,
  /// valid until then (0: for long).
  void make_certificate(const std::string& address, bool known_ca = true, int64_t not_after = 0);

  /// A new pool with a directory of its own, or of this one.
  Pool_Info add_pool(const std::string& name, const std::string& directory = std::string());
  kestrel::Pool_Registry& pools() { return pools_; }
  kestrel::Catalog_Back_End& catalog() { return *catalog_; }
  kestrel::Storage_Uploads& uploads() { return storage_->uploads(); }

  /// Called before the router gets a request; an answer of its own ends the request.
  typedef std::function<bool(const kestrel::REST_Request&, kestrel::REST_Reply&)> Hook;
  void before(Hook hook);
  /// Called with the router's reply.
  typedef std::function<void(const kestrel::REST_Request&, kestrel::REST_Reply&)> Reply_Hook;
  void after(Reply_Hook hook);

  /// One request without a network.
  kestrel::REST_Reply handle(kestrel::REST_Request& request, const std::string& target);
  /// "METHOD path status" of all requests so far, without the query.
  std::vector<std::string> requests() const;
  unsigned count(const std::string& beginning) const;

  kestrel::REST_Client_Options client_options(const std::string& host = "host-1") const;
  kestrel::Upstream_Options upstream_options(const std::string& host = "host-1") const;

  Temp_Dir dir;
  kestrel::Storage_Uploads::Limits limits;

private:
  void build();

  std::shared_ptr<kestrel::Catalog_Back_End> catalog_;
  kestrel::Pool_Registry pools_;
  std::string ca_pem_;
  std::string ca_key_;
  std::unique_ptr<kestrel::Catalog_Resources> catalogs_;
  std::unique_ptr<kestrel::Pool_Resources> pool_resources_;
  std::unique_ptr<kestrel::Storage_Resources> storage_;
  std::unique_ptr<kestrel::Backup_Resources> backups_;
  std::unique_ptr<kestrel::REST_Router> router_;
  std::unique_ptr<kestrel::HTTP_Server> http_;
  unsigned short port_ = 0;
  mutable std::mutex lock_;
  Hook before_;
  Reply_Hook after_;
  std::vector<std::string> requests_;
};

/// Carries requests to a Served_Place without a network, and loses what it is told to.
class Direct_Transport : public kestrel::REST_Transport
{
public:
  Direct_Transport(Served_Place& place, const std::string& host) : place_(place), host_(host) {}

  bool perform(const kestrel::REST_Call& call, kestrel::REST_Answer& answer,
               kestrel::REST_Problem& problem) override;

  enum Fault { unreachable, lost_before, lost_after };
  /// The next requests of this kind ("PUT /k2/r/uploads") meet the fault; meanwhile runs between the request
  /// and the loss of the answer.
  void fail(const std::string& beginning, Fault fault, unsigned times = 1,
            std::function<void()> meanwhile = nullptr);
  /// As fail(), for the request of this number from now on, counted from 1.
  void fail_number(unsigned number, Fault fault, std::function<void()> meanwhile = nullptr);
  unsigned requests() const;

private:
  struct Plan {
    std::string beginning;
    unsigned number = 0;
    Fault fault = unreachable;
    unsigned times = 0;
    std::function<void()> meanwhile;
  };
  bool take(const kestrel::REST_Call& call, Plan& plan);

  Served_Place& place_;
  const std::string host_;
  mutable std::mutex lock_;
  std::vector<Plan> plans_;
  unsigned seen_ = 0;
};
} // namespace kestrel_test
