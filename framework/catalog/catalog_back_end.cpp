#include "catalog/catalog_back_end.h"

#include "catalog/sql_back_end.h"

#include <mutex>

namespace kestrel
{
namespace
{
std::mutex& registration_mutex()
{
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<Catalog_Back_End>& registered()
{
  static std::shared_ptr<Catalog_Back_End> back_end;
  return back_end;
}
} // namespace

Catalog_Back_End::~Catalog_Back_End() = default;

std::shared_ptr<Catalog_Back_End> catalog_back_end()
{
  {
    std::lock_guard<std::mutex> guard(registration_mutex());
    if (registered())
      return registered();
  }
  return std::make_shared<Sql_Back_End>(default_catalog_place());
}

void register_catalog_back_end(std::shared_ptr<Catalog_Back_End> back_end)
{
  std::lock_guard<std::mutex> guard(registration_mutex());
  registered() = std::move(back_end);
}
} // namespace kestrel
