#include "cli/pool_choice.h"

namespace kestrel
{
bool choose_target_pool(Session& session, Pool_Info& pool)
{
  const std::string& wanted = session.line().pool;
  std::string error;
  Pool_Registry& pools = session.host().pools();
  if (wanted.empty() ? pools.default_pool(pool, error) : pools.find(wanted, pool, error))
    return true;
  session.fail(wanted.empty() ? "there is no pool to back up to: " + error +
                                    "; add one: kestrel pool add NAME --path DIR --default"
                              : "the pool " + wanted + " cannot be used: " + error);
  return false;
}

bool choose_source_pool(Session& session, std::string& pool_id)
{
  if (session.line().pool.empty())
    return true;
  Pool_Info pool;
  if (!choose_target_pool(session, pool))
    return false;
  pool_id = pool.pool_id;
  return true;
}
} // namespace kestrel
