#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace soci
{
class session;
}

namespace kestrel
{
/// The agent's SQLite file: definitions and runs. Made with mode 0600; write-ahead log; a change is on the
/// disk when write() has returned true. Threads: any; one statement or transaction at a time. Errors:  false
/// with `error` naming the file and what to do; nothing was changed then. Crash:   the database undoes what
/// was not finished; an older schema is brought up to date in one transaction.
class Job_Database
{
public:
  typedef std::function<void(soci::session&)> Work;
  /// The statements that lead from one version of the schema to the next, the first from an empty file.
  typedef std::vector<std::vector<std::string>> Migrations;

  Job_Database();
  ~Job_Database();
  Job_Database(const Job_Database&) = delete;
  Job_Database& operator=(const Job_Database&) = delete;

  [[nodiscard]] bool open(const std::string& path, std::string& error,
                          const Migrations& migrations = schema());
  /// Opens a database that is there for read() alone, whether an agent is at work on it or not. Nothing in it
  /// changes; SQLite may leave its -wal and -shm files beside it. Fails, too, when the schema is not this
  /// program's.
  [[nodiscard]] bool open_to_read(const std::string& path, std::string& error);
  void close();

  /// Runs statements that change nothing; they may throw what SOCI throws.
  [[nodiscard]] bool read(const Work& work, std::string& error) const;
  /// Runs statements in one transaction.
  [[nodiscard]] bool write(const Work& work, std::string& error);

  static const Migrations& schema();

private:
  struct State;
  std::unique_ptr<State> state_;
};
} // namespace kestrel
