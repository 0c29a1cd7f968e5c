#pragma once

#include "catalog/catalog_operator.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

typedef std::map<std::string, json_spirit::Value> Query;

/// With KESTREL_TEST_POSTGRESQL in the environment (a libpq connection text), the catalog of the test lies in
/// a schema of its own on that server; otherwise this does nothing.
class Server_Schema
{
public:
  explicit Server_Schema(const kestrel_test::Temp_Dir& root);
  ~Server_Schema();
  Server_Schema(const Server_Schema&) = delete;
  Server_Schema& operator=(const Server_Schema&) = delete;

private:
  std::string server_;
  std::string name_;
};

/// A catalog of its own for each test, below a temporary KESTREL_ROOT.
class Catalog_Fixture : public ::testing::Test
{
protected:
  kestrel_test::Temp_Dir root_;
  kestrel_test::Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  Server_Schema schema_{root_};
  kestrel_test::Log_Capture log_;

  std::string catalog_path() const { return root_ / "var/opt/tarnvik/kestrel3/agent/catalog.db"; }

  std::string configuration_path() const { return root_ / "var/opt/tarnvik/kestrel3/agent/catalog.json"; }

  static Oscar_Brcmd_Backup_Set make_set(const std::string& id, const std::string& type = "full",
                                         const std::string& last = "", const std::string& full = "",
                                         time_t start_time = 1000);
  static Oscar_Backup_Set make_logical_set(const std::string& uuid, uint64_t seq, time_t start_time = 1000);
  static bool commit(const Backup_Set& set) { return Catalog_Operator(-1, 0).commit(set, true); }
  /// All in one transaction: a hundred separate commits wait for the disk a hundred times.
  static void commit_many(const std::vector<Oscar_Brcmd_Backup_Set>& sets);
  static bool view(const Query& query, json_spirit::Value& result, const char* catalog = "oscar_brcmd",
                   const char* view = "catalogs")
  {
    return Catalog_Operator(-1, 0).get_view(catalog, view, query, result);
  }
  /// The rows of a view that must succeed.
  static json_spirit::Array rows(const Query& query, const char* catalog = "oscar_brcmd",
                                 const char* view = "catalogs");
  /// One field of all rows, joined by blanks.
  static std::string texts(const json_spirit::Array& rows, const char* field);
  static std::string ids(const Query& query) { return texts(rows(query), "backup_id"); }
  static std::string chain(const std::string& backup_id)
  {
    return texts(rows({{"backup_id", backup_id}, {"order", "desc"}}, "oscar_brcmd", "catalog_sequences"),
                 "backup_id");
  }
};
