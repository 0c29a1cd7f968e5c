#pragma once

#include "catalog/catalog_back_end.h"
#include "rpc/rest_router.h"
#include "server/recent_reads.h"
#include "server/storage_uploads.h"
#include "storage/pool_registry.h"

#include <memory>
#include <string>

namespace kestrel
{
/// Stored files over REST, for agents (below /k2/r/). FOLDER is one part: its slashes are escaped.
///   GET    storage/{pool}/{folder}               -> {} when files can be stored there
///   GET    storage/{pool}/{folder}/{name}        -> {"size","side_file","version"}
///   GET    storage/{pool}/{folder}/{name}/bytes?offset&length&version -> the bytes (at most 8 MiB); 409 when
///   the
///                                                   content is no longer that version
///   DELETE storage/{pool}/{folder}/{name}        only by the host that sent it, and only while no backup set
///                                                names it; a file that is not there is success
///   POST   uploads {"upload","pool","folder","name","overwrite","keep_seconds"} -> {"offset"}; 409
///   name_taken GET    uploads/{upload}                      -> {"offset"}: where the unfinished file ends
///   PUT    uploads/{upload}/bytes?offset=N       octets that belong at N -> {"offset"}; what is there
///   already is
///                                                skipped; 409 offset when there would be a gap
///   POST   uploads/{upload}/commit {"size","side_file"} -> {}: durable under its name
///   DELETE uploads/{upload}?keep=0|1             gives the file up
/// 507 means that the pool's disk refused: full, read-only, defective.
/// Threads:   any. Ownership: shares the catalog; must outlive the router's requests.
class Storage_Resources
{
public:
  /// `folder`: where unfinished files are noted.
  Storage_Resources(const Pool_Registry& pools, std::shared_ptr<Catalog_Back_End> catalog,
                    const std::string& folder,
                    const Storage_Uploads::Limits& limits = Storage_Uploads::Limits());
  void add_to(REST_Router& router);

  Storage_Uploads& uploads() { return uploads_; }
  const Recent_Reads& reads() const { return reads_; }

private:
  REST_Reply check(REST_Request& request);
  REST_Reply show(REST_Request& request);
  REST_Reply bytes(REST_Request& request);
  REST_Reply remove(REST_Request& request);
  REST_Reply begin(REST_Request& request);
  void check_replace(const Upload_Record& wanted, const Pool_Info& pool);
  bool is_recorded(const Pool_Info& pool, const std::string& folder, const std::string& name);

  const Pool_Registry pools_;
  const std::shared_ptr<Catalog_Back_End> catalog_;
  Storage_Uploads uploads_;
  Recent_Reads reads_;
};
} // namespace kestrel
