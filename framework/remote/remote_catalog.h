#pragma once

#include "catalog/catalog_back_end.h"
#include "remote/rest_client.h"

#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace kestrel
{
/// The catalog of a backup server, over REST.
///
/// A server that cannot be reached or is overloaded makes an operation busy, so that its caller waits and
/// tries again; what the server refuses has failed. A commit whose answer got lost may have been carried out:
/// its repetition says so, and the server then accepts the record that it already has, but only when it is
/// the same in every field.
/// Long views are fetched in parts. A set that is committed meanwhile may be missing; none comes twice.
/// Threads, errors, crash: as Catalog_Back_End.
class Remote_Catalog : public Catalog_Back_End
{
public:
  /// `read_only`: everything that changes the catalog is refused here already.
  Remote_Catalog(std::shared_ptr<REST_Client> client, bool read_only);

  Catalog_Status get_view(const std::string& catalog, const std::string& view,
                          const std::map<std::string, json_spirit::Value>& query, json_spirit::Value& result,
                          std::string& error) override;
  Catalog_Status commit(const Backup_Record& record, bool must_be_new, std::string& warning,
                        std::string& error) override;
  Catalog_Status set_state(const std::string& uuid, Set_State state, const std::string& reason,
                           std::string& error) override;
  Catalog_Status remove(const std::string& uuid, std::string& error) override;
  Catalog_Status dependents(const std::string& uuid, std::vector<std::string>& uuids,
                            std::string& error) override;
  Catalog_Status count_by_pool(const std::string& pool_uuid, uint64_t& count, std::string& error) override;

private:
  template <class Take>
  Catalog_Status ask(REST_Call& call, const json_spirit::Value* body, std::string& error, Take take,
                     bool& missing);
  template <class Act> Catalog_Status change(const std::string& key, std::string& error, Act act);
  Catalog_Status refuse_change(std::string& error) const;
  Catalog_Status get_page(const std::string& path, const json_spirit::Object& query,
                          json_spirit::Object& answer, bool& too_long, std::string& error);
  Catalog_Status get_all(const std::string& path, const json_spirit::Object& query, uint64_t limit,
                         uint64_t offset, json_spirit::Value& result, std::string& error);

  const std::shared_ptr<REST_Client> client_;
  const bool read_only_;
  std::mutex lock_;
  /// Changes that may have been carried out without our knowing.
  std::set<std::string> unanswered_;
};
} // namespace kestrel
