#include "catalog/catalog_back_end.h"

namespace kestrel
{
Catalog_Back_End::~Catalog_Back_End() = default;
} // namespace kestrel
