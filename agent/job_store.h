#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace kestrel
{
class Job_Database;

/// A job definition as the agent keeps it.
struct Stored_Definition {
  std::string id;
  uint64_t revision = 0;
  bool enabled = true;
  std::string origin;   ///< "server" or "local"
  std::string document; ///< JSON text, a protection password masked
  /// Schedules count from here on: nothing before is missed.
  time_t since = 0;
};

/// The definitions in the agent's database.
/// Threads:   any. Ownership: the database is not owned. Errors: as Job_Database.
class Job_Store
{
public:
  explicit Job_Store(Job_Database& database) : database_(database) {}

  [[nodiscard]] bool load(std::vector<Stored_Definition>& definitions, std::string& error) const;
  /// Stores and removes in one step.
  [[nodiscard]] bool change(const std::vector<Stored_Definition>& stored,
                            const std::vector<std::string>& removed, std::string& error);
  [[nodiscard]] bool set_enabled(const std::string& id, bool enabled, std::string& error);

  /// What modules have heard of a definition: its document and whether it is enabled. `gone`: that it went.
  struct Told {
    std::string id;
    std::string document;
    bool enabled = true;
    bool gone = false;
  };
  [[nodiscard]] bool load_told(std::vector<Told>& told, std::string& error) const;
  /// Replaces what is kept of these.
  [[nodiscard]] bool set_told(const std::vector<Told>& told, std::string& error);

  /// The time up to which all schedules have been looked at; 0 when they never were.
  [[nodiscard]] bool scheduled_until(time_t& until, std::string& error) const;
  [[nodiscard]] bool set_scheduled_until(time_t until, std::string& error);

private:
  Job_Database& database_;
};
} // namespace kestrel
