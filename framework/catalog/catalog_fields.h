#pragma once

#include <string>
#include <vector>

namespace kestrel
{
enum class Field_Kind {
  text,
  number, ///< 64 bits; stored as the signed value of the same pattern, sorted as unsigned
  time,   ///< seconds since the epoch
  flag,   ///< 0 or 1, a boolean in rows
  json    ///< any JSON value, stored as text; cannot be a filter
};

enum Catalog_Bits : unsigned { brcmd_catalog = 1, logical_catalog = 2, both_catalogs = 3 };

/// One field of the rows; its column has the same name.
struct Catalog_Field {
  const char* name;
  Field_Kind kind;
  unsigned catalogs; ///< Catalog_Bits: which catalogs' rows have it
  bool committed;    ///< comes with the record; otherwise the catalog sets it
};

/// In the order in which rows show them. The schema's columns must agree with it (held by a test).
const std::vector<Catalog_Field>& catalog_fields();
/// 0 for an unknown catalog.
unsigned catalog_bit(const std::string& catalog);
/// The field of that name in that catalog, "backup_start_time" included; null when there is none.
const Catalog_Field* find_catalog_field(unsigned catalog_bit, const std::string& name);
} // namespace kestrel
