#pragma once

#include "instances/instance.h"
#include "json/value.h"

#include <memory>
#include <string>
#include <vector>

/// What the module asks about one OSCAR instance of this host: its files under <oscar_home>/admin, its state,
/// its start, and its content for the console.
///
/// Limits:    an instance name counts up to 26 characters in the name of its .conf file and up to 28 in that
///            of its .db file; of a longer one the end of the file name is cut, extension first.
/// Threads:   no state; any thread. Login tests, queries and the start block until their tool has ended.
/// Ownership: arguments are only read.
/// Errors:    false: failed and logged; out-parameters as each function says.
/// Crash:     leaves no files.

/// True when isql can log in. ERROR (may be null) receives the cleaned error text of isql.
[[nodiscard]] bool test_login_instance(const char* oscar_home, const char* instance, const char* username,
                                       const char* password, std::string* error);

/// The port of the instance's configuration file, or the default 2003 when there is no such file.
/// False when the file names no port, or names it on a last line that has no line end (PORT then holds it).
/// PORT is set to 0 at first.
[[nodiscard]] bool get_instance_port(const char* oscar_home, const char* instance, unsigned short& port);

/// True when something on this host listens on the instance's port. STATE is "online" or "offline" in every
/// case.
[[nodiscard]] bool get_instance_state(const char* oscar_home, const char* instance, std::string& state);

/// A recorded text option of the instance. VALUE is written on success only; an absent option is not logged.
[[nodiscard]] bool get_from_instance_options(std::shared_ptr<Instance> instance, const char* key,
                                             std::string& value);

/// True when the server process of the instance's .db file lives. PID is set once an id was read, also when
/// it is dead. A process that may not be signalled, and a zombie, count as alive.
[[nodiscard]] bool instance_running(const char* oscar_home, const char* instance, int& pid);

/// Starts the instance if it does not run. True when it ran already or the start command succeeded; whether
/// it came online within the 15 seconds of watching does not matter.
[[nodiscard]] bool start_instance(const char* oscar_home, const char* instance);

/// The database entry of the instance for the console. A failed login is the answer "unopened" and no
/// failure. VALUE is overwritten from the start: a later failure leaves a partial answer in it.
[[nodiscard]] bool get_database_info(std::shared_ptr<Instance> inst, const char* instance,
                                     const char* username, const char* password, json_spirit::Value& value);

/// The user schemas as an array of strings. DB appears in messages only. VAL is written on success only.
[[nodiscard]] bool get_schemas_info(std::shared_ptr<Instance> inst, const char* instance, const char* db,
                                    const char* username, const char* password, json_spirit::Value& val);

/// The tables of SCHEMA as an array of strings. DB appears in messages only. VAL is written on success only.
[[nodiscard]] bool get_tables_info(std::shared_ptr<Instance> inst, const char* instance, const char* db,
                                   const char* schema, const char* username, const char* password,
                                   json_spirit::Value& val);
