#pragma once

#include <string>
#include <vector>

namespace kestrel
{
/// The tables of one part of the server and the steps that lead to their present form: entry 0 makes version
/// 1 of the part. Once released an entry is never changed: a change is a new entry at the end.
struct Server_Schema_Part {
  std::string name;
  std::vector<std::vector<std::string>> steps;
};

/// All parts, in the order in which they are made: a table that refers to another stands in a later part.
std::vector<Server_Schema_Part> server_schema();

/// One function a part; defined beside the code that uses the tables.
Server_Schema_Part account_schema(); ///< hosts, users, sessions, audit
Server_Schema_Part hub_schema();     ///< definitions, runs, selections, what is known of the hosts

/// Marks the SQLite file as a server's database ("ktls").
const int server_application_id = 0x6b746c73;
} // namespace kestrel
