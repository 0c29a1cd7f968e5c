#include "cli/pool_choice.h"

namespace kestrel
{
bool choose_target_pool(Command_Context& context, Pool_Info& pool)
{
  const std::string& wanted = context.line().pool;
  std::string error;
  if (context.find_pool(wanted, pool, error))
    return true;
  context.fail(wanted.empty() ? "there is no pool to back up to: " + error +
                                    " (kestrel pool add NAME --path DIR --default)"
                              : "the pool " + wanted + " cannot be used: " + error);
  return false;
}

bool choose_source_pool(Command_Context& context, std::string& pool_id)
{
  if (context.line().pool.empty())
    return true;
  Pool_Info pool;
  if (!choose_target_pool(context, pool))
    return false;
  pool_id = pool.pool_id;
  return true;
}
} // namespace kestrel
