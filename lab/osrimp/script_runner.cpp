#include "lab/osrimp/script_runner.h"

#include "lab/common/text.h"
#include "lab/logical/client_program.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

/// An object that others hold locked longer than this ends the import.
constexpr const char* lock_limit = "set lock_timeout = 60000;";
/// psql says this before the last statement.
constexpr const char* committing = "osrimp-committing";

/// psql went away; it knows why.
class Reader_Gone : public Failure
{
public:
  using Failure::Failure;
};

struct Pipe {
  Descriptor read_end;
  Descriptor write_end;
};

Pipe make_pipe()
{
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0)
    fail_errno("cannot create a pipe");
  return Pipe{Descriptor(ends[0]), Descriptor(ends[1])};
}

void send(int to, const std::string& text)
{
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count = ::write(to, text.data() + sent, text.size() - sent);
    if (count < 0 && errno == EPIPE)
      throw Reader_Gone("psql ended early");
    if (count < 0 && errno != EINTR)
      fail_errno("cannot write the script");
    if (count > 0)
      sent += static_cast<std::size_t>(count);
  }
}

/// Passes the archive's script on. Its head switches the limit on lock waits off; that one line is changed.
void pass_on(int from, int to)
{
  constexpr std::size_t head_bytes = 8192;
  const std::string unlimited = "SET lock_timeout = 0;";
  std::string head(head_bytes, '\0');
  head.resize(read_full(from, &head[0], head_bytes, "the archive's script"));
  const auto found = head.find(unlimited);
  if (found != std::string::npos)
    head.replace(found, unlimited.size(), lock_limit);
  send(to, head);
  for (;;) {
    const ssize_t count = ::splice(from, nullptr, to, nullptr, 1 << 20, SPLICE_F_MOVE);
    if (count == 0)
      return;
    if (count < 0 && errno == EPIPE)
      throw Reader_Gone("psql ended early");
    if (count < 0 && errno != EINTR)
      fail_errno("cannot pass the script on");
  }
}

Descriptor list_file(const std::vector<Entry>& entries)
{
  Descriptor list = memory_file();
  std::string text;
  for (const Entry& entry : entries)
    text += entry.line + "\n";
  write_all(list.get(), text.data(), text.size(), "the list");
  return list;
}

void send_archive(const Import_Script& script, int file, const Login& login, int to)
{
  const Descriptor list = list_file(script.entries);
  Pipe pipe = make_pipe();
  std::vector<std::string> arguments = {"--file=-", "--use-list=" + path_of_inherited(list.get())};
  arguments.insert(arguments.end(), script.options.begin(), script.options.end());
  arguments.push_back(path_of_inherited(file));
  Client_Program restore("pg_restore", arguments, login, -1, pipe.write_end.get(), {list.get(), file});
  pipe.write_end.reset();
  pass_on(pipe.read_end.get(), to);
  if (!restore.wait())
    throw Failure("the file cannot be read: " + restore.error());
}

[[noreturn]] void fail_with_reason(const Client_Program& psql)
{
  const std::string text = psql.messages();
  if (text.find(committing) != std::string::npos && text.find("ERROR:  ") == std::string::npos)
    throw Unknown_Outcome("the connection was lost during the commit: look at the data before trying again");
  throw Failure(psql.error());
}

} // namespace

std::vector<std::string> run_script(const Import_Script& script, int file, const Login& login)
{
  Pipe pipe = make_pipe();
  Client_Program psql("psql", {"--no-psqlrc", "--quiet", "--set=ON_ERROR_STOP=1", "--file=-"}, login,
                      pipe.read_end.get(), -1);
  pipe.read_end.reset();
  try {
    send(pipe.write_end.get(), "begin;\n" + std::string(lock_limit) + "\n" +
                                   "set maintenance_work_mem = '256MB';\nset search_path = '';\n" +
                                   script.before);
    if (!script.entries.empty())
      send_archive(script, file, login, pipe.write_end.get());
    send(pipe.write_end.get(),
         "\n" + std::string(lock_limit) + "\n" + script.after + "\\warn " + committing + "\ncommit;\n");
  } catch (const Reader_Gone&) {
    if (psql.wait())
      throw;
    fail_with_reason(psql);
  } catch (const Failure&) {
    psql.kill(); // before it sees an end of the script
    throw;
  }
  pipe.write_end.reset();
  if (!psql.wait())
    fail_with_reason(psql);
  std::vector<std::string> warnings;
  for (const std::string& line : split_lines(psql.messages())) {
    const auto found = line.find("WARNING:  ");
    if (found != std::string::npos)
      warnings.push_back(line.substr(found + 10));
  }
  return warnings;
}

} // namespace oscar_lab
