/// The file that osrexp writes: an archive of pg_dump (custom format), and behind it a record that says what
/// it holds.
///
///   archive | record: lines of words, "%XX" for blanks and odd bytes | "OSRXEND1" archive length, record
///   length, xxh64
///
/// The three numbers are 8 bytes each, least significant first; the checksum covers archive and record. A
/// file without this end is not a complete export, whatever its name. pg_restore does not look beyond the
/// archive.
///
/// Threads: values only. Errors: Failure. Crash: a half-written file lacks the end and is refused.
#pragma once

#include "lab/common/files.h"
#include "lab/logical/parameters.h"

#include <set>
#include <string>
#include <vector>

namespace oscar_lab
{

/// An object that needs another one: a foreign key its table, a trigger its function.
struct Reference {
  std::string schema;
  std::string table;
  std::string name;
  std::string needed_schema;
  std::string needed_name;
};

/// All names as the database stores them.
struct Export_Record {
  Level level = Level::database;
  std::string schema; // set at schema and table level
  std::string table;  // set at table level
  std::set<Object_Kind> left_out;
  std::vector<std::string> schemas;        // whose objects the archive holds
  std::vector<std::string> roles;          // owners and holders of privileges
  std::set<std::string> tablespaces;       // that tables are in
  std::set<std::string> index_tablespaces; // that indexes are in
  std::vector<Reference> foreign_keys;
  std::vector<Reference> triggers;
  std::vector<std::pair<std::string, std::string>> free_sequences; // schema, name: not a column's own
  std::vector<std::pair<std::string, std::string>> keyed_views;    // schema, name: they need a primary key
};

/// Appends record and end to the archive in the open file.
void finish_export(int fd, const Export_Record& record);

/// Checks the whole file and gives its record; path is for messages.
Export_Record read_export(int fd, const std::string& path);

} // namespace oscar_lab
