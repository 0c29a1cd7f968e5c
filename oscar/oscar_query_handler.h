#pragma once

#include "process/text_process_handler.h"

#include <ace/Process.h>

#include <iosfwd>
#include <sstream>
#include <string>
#include <vector>

/// Runs SQL statements through isql, one after the other, and turns its table into rows of text cells.
///
/// Limits:    the whole command line holds 1023 bytes; a longer statement reaches isql cut. SQL stands in it
///            unescaped between double quotes. Cells keep the blanks beside the separators; adjoining
///            separators count as one, so an empty cell vanishes while a blank one stays. output() stops
///            growing at Max_Output_Bytes.
/// Threads:   one thread at a time; distinct objects are independent. select() blocks until isql has ended.
/// Ownership: owns all its texts; neither copied nor moved, because its line handler points into it.
/// Errors:    select() false: a value of the connection is missing (logged; result() keeps the previous
///            rows), or isql failed (not logged; what it printed is in output(), result() may hold rows).
/// Secrets:   the password stands on the command line of isql; the command is never logged.
/// Crash:     leaves no files; the child dies with this process.
class Oscar_Query_Handler
{
public:
  typedef std::vector<std::vector<std::string>> Result_type;

  /// What one object collects for output() at most, over all its runs. The rows are not affected by it.
  static constexpr unsigned int Max_Output_Bytes = 16u << 20;

  /// Parses the output of isql line by line: two lines of headings, rows, and the row-count footer.
  class Isql_Query_Line_Handler : public Text_Process_Handler
  {
  public:
    /// Neither OUTPUT nor RESULTS is owned; both must outlive the handler.
    Isql_Query_Line_Handler(std::ostream& output, Result_type* results);
    ~Isql_Query_Line_Handler() override;

    /// An empty or null line is reported and ends the parsing (-1): isql prints none.
    int handle_stdout_line(const char* line, unsigned int length) override;

    /// Expects the headings of a new statement again.
    void expect_headers();

  private:
    int headers_;
    std::ostream& output_;
    Result_type* results_;
  };

  /// Nothing set: reset() must come before select().
  Oscar_Query_Handler();
  Oscar_Query_Handler(const std::string& oscar_home, const std::string& instance, const std::string& username,
                      const std::string& password, unsigned short port, const std::string& host);
  Oscar_Query_Handler(const Oscar_Query_Handler&) = delete;
  Oscar_Query_Handler& operator=(const Oscar_Query_Handler&) = delete;

  /// Replaces everything but the host. False when OSCAR_HOME is empty.
  [[nodiscard]] bool reset(const std::string& oscar_home, const std::string& instance,
                           const std::string& username, const std::string& password, unsigned short port);

  /// True when isql ran and ended with success.
  [[nodiscard]] bool select(const char* sql);
  [[nodiscard]] bool select(const std::string& sql);

  /// All that isql printed on standard output, over all statements of this object.
  std::string output() const;

  /// The rows of the last statement.
  const Result_type& result() const;

  /// Runs isql for select(): another thread may terminate a run through it.
  Text_Process_Handler& process_handler() { return handler_; }

private:
  std::ostringstream output_;
  Result_type results_;
  Isql_Query_Line_Handler handler_;
  std::string oscar_home_;
  std::string instance_;
  std::string username_;
  std::string password_;
  unsigned short port_ = 0;
  std::string host_;
  ACE_Process_Options opts_;
};
