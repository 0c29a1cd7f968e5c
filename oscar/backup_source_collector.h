#pragma once

#include <string>
#include <vector>

namespace oscar
{
/// Turns the entries of a backup source into records.
/// Threads: one thread.
class Backup_Source_Collector
{
public:
  /// One selected object; the fields an entry leaves off are empty.
  struct Source {
    std::string servername;
    std::string dbname;
    std::string schema;
    std::string table;
  };

  /// Appends a record for each entry that names a server; one that is only "oscar" is passed over, what
  /// follows the table is ignored. 0, or -1 (logged) at the first entry that does not begin with "oscar"; the
  /// records made before it stay.
  [[nodiscard]] int collect(std::vector<std::string> const& entries);

  const std::vector<Source>& sources() const { return sources_; }

private:
  std::vector<Source> sources_;
};
} // namespace oscar
