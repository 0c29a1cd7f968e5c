#pragma once

#include "json/value.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kestrel
{
/// One backup set in the neutral form that catalog back ends store and carry: no back end knows the set
/// classes.
/// Threads: a plain value.
/// Units:   sizes in bytes, times in seconds since the epoch.
struct Backup_Record {
  struct Storage {
    std::string pool_uuid;
    uint64_t size = 0;
  };
  struct Piece {
    std::string name;
    uint64_t size = 0;
  };
  /// One file of a logical set; `grade` is "table", "schema" or "database".
  struct File {
    std::string database;
    std::string schema;
    std::string table;
    std::string file;
    std::string grade;
    uint64_t size = 0;
    std::string checksum;
  };

  std::string catalog; ///< "oscar_brcmd" or "oscar"
  /// By field name; numbers as unsigned 64-bit. A field that the catalog does not know makes the commit fail.
  std::map<std::string, json_spirit::Value> fields;
  std::vector<Storage> storages;
  std::vector<Piece> pieces;
  std::vector<File> files;
};
} // namespace kestrel
