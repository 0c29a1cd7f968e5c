#pragma once

#include "catalog/catalog_back_end.h"
#include "rpc/rest_router.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace kestrel
{
/// The catalog over REST (below /k2/r/):
///   POST   catalogs/{catalog}/{view}        {query}    -> {"rows":[...]}, as Catalog_Operator::get_view()
///   POST   catalogs                         {"record","must_be_new","repeated"} -> {"warning"}
///   POST   catalogs/sets/{uuid}/state       {"state":"available"|"unavailable","reason"}; 409 deleting when
///                                           its deletion has begun
///   DELETE catalogs/sets/{uuid}
///   GET    catalogs/sets/{uuid}/dependents  -> {"uuids":[...]}
/// Agents add records and read; operators change states; administrators delete. A record with "repeated" is a
/// commit whose answer got lost: when the catalog has it already, the same in every field, it counts as
/// stored. Each host adds records in its own name only, also those of a cluster whose nodes back up one
/// resource in turn: 403 when the record's host is another, or when its file was sent by another. A record
/// without a host gets the sender's. A record that is there is never replaced.
/// An answer that would be too large for a client is refused with 413: the client asks for fewer rows.
/// Threads:   any. Ownership: shares the catalog; must outlive the router's requests.
class Catalog_Resources
{
public:
  /// The host that sent a stored file; "" when that is not known.
  typedef std::function<std::string(const std::string& pool_id, const std::string& folder,
                                    const std::string& name)>
      File_Sender;

  Catalog_Resources(std::shared_ptr<Catalog_Back_End> catalog, File_Sender sender);
  void add_to(REST_Router& router);

private:
  REST_Reply view(REST_Request& request);
  REST_Reply commit(REST_Request& request);
  REST_Reply set_state(REST_Request& request);
  REST_Reply remove(REST_Request& request);
  REST_Reply dependents(REST_Request& request);
  std::string foreign_problem(const Backup_Record& record, const std::string& host_uuid) const;
  bool has_same(const Backup_Record& record);
  json_spirit::Array set_rows(const std::string& uuid);
  bool has_set(const std::string& uuid) { return !set_rows(uuid).empty(); }
  json_spirit::Array rows(const std::string& catalog, const std::map<std::string, json_spirit::Value>& query);

  const std::shared_ptr<Catalog_Back_End> catalog_;
  const File_Sender sender_;
  /// The catalog takes one writer at a time, and waiting in line is faster than asking again and again.
  std::mutex commits_;
};

/// Throws the REST_Error of a catalog operation that was not done.
void check_catalog(Catalog_Status status, const std::string& error);
} // namespace kestrel
