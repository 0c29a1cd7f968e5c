/// Where the files of one instance lie in an OSCAR home, and what its configuration says.
///
///   bin/            the tools                    admin/NAME.conf  port and archive mode
///   agent/          lastlsn.dat                  admin/NAME.db    pid of the running server
///   odbs/NAME/      pgdata, tablespaces, archive, chain, run (the server's socket), server.log
///
/// Threads: values only. Errors: Failure. Names are always upper case, whatever was typed.
#pragma once

#include "lab/common/files.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oscar_lab
{

/// Longest name whose NAME.conf still fits the 31 characters that agents use for it.
constexpr std::size_t max_instance_name = 26;

struct Instance_Files {
  std::string home;
  std::string name;

  /// Checks the name (a letter, then letters, digits and "_") and turns it into upper case.
  Instance_Files(const std::string& oscar_home, const std::string& instance);

  std::string bin(const std::string& tool) const { return home + "/bin/" + tool; }
  std::string conf() const { return home + "/admin/" + name + ".conf"; }
  std::string pid_file() const { return home + "/admin/" + name + ".db"; }
  std::string chain_file() const { return home + "/agent/lastlsn.dat"; }
  std::string directory() const { return home + "/odbs/" + name; }
  std::string data() const { return directory() + "/pgdata"; }
  std::string archive() const { return directory() + "/archive"; }
  /// What brcmd remembers of the last backups beside lastlsn.dat.
  std::string chain_notes() const { return directory() + "/chain"; }
  std::string run() const { return directory() + "/run"; }
  std::string log() const { return directory() + "/server.log"; }
  /// Held by the running server and all its processes, by an offline backup and by a restore.
  std::string lock() const { return directory() + "/instance.lock"; }
  /// Present while the data directory is not usable; its text says why.
  std::string incomplete_mark() const { return directory() + "/incomplete"; }
  std::string init_script() const { return "/etc/init.d/oscardb_" + name + "d"; }

  /// Throws unless the configuration and the instance's directory are there.
  void require_existing() const;
};

struct Instance_Conf {
  std::uint16_t port = 0;
  bool archive_log = false;
  /// Of a node of a cluster, otherwise empty: the address that the cluster's master holds, and the node's
  /// own.
  std::string virtual_address;
  std::string node_address;
};

Instance_Conf read_conf(const Instance_Files& files);
void write_conf(const Instance_Files& files, const Instance_Conf& conf);
/// Replaces the two addresses and leaves every other line as it is.
void write_cluster_addresses(const Instance_Files& files, const Instance_Conf& conf);

/// The home that the running tool belongs to: the directory above its bin directory.
std::string home_of_this_tool();
std::string path_of_this_program();

/// One tablespace beside the data directory.
struct Tablespace {
  std::string oid;
  std::string location; // directory that pg_tblspc/OID points to
};
std::vector<Tablespace> tablespaces_of(const std::string& data_directory);

/// The regular file that stands for a tablespace's data file ("x.dbf" for the directory "x.dbf.d").
std::string datafile_of(const std::string& tablespace_location);

} // namespace oscar_lab
