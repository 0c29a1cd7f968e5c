#include "oscar/utils_export.h"

#include "base/files.h"
#include "base/ignore_result.h"
#include "base/snprintf_t.h"
#include "oscar/oscar_argument_check.h"
#include "oscar/oscar_cmd_handler.h"
#include "oscar/utils.h"

#include <ace/Log_Msg.h>

#include <sys/stat.h>

namespace
{
constexpr mode_t DUMP_MODE = 0640;

/// A command line with a password in it.
class Secret_Command
{
public:
  Secret_Command() = default;
  ~Secret_Command() { ::explicit_bzero(&text, sizeof text); }
  Secret_Command(const Secret_Command&) = delete;
  Secret_Command& operator=(const Secret_Command&) = delete;

  snprintf_t<4096> text;
};

template <class Input> int run_tool(const Input& input, const Secret_Command& command)
{
  Oscar_Cmd_Login login;
  login.username = input.username.c_str();
  login.password = input.password.c_str();
  // The thread's own lines reach the job's log as it is.
  const std::shared_ptr<ACE_Log_Msg_Callback> no_callback;
  if (input.host)
    return input.host->run_tool(input.oscar_home.c_str(), command.text.c_str(), login, no_callback);
  return execute_oscar_cmd(input.oscar_home.c_str(), command.text.c_str(), login, false, true, no_callback,
                           nullptr);
}

bool look_up_port(const std::string& oscar_home, const std::string& instance, unsigned short& port)
{
  if (get_instance_port(oscar_home.c_str(), instance.c_str(), port))
    return true;
  ACE_ERROR((LM_ERROR, "Failed to get port.\n"));
  return false;
}

void set_export_command(const Backup_Input& input, const Backup_File& file, unsigned short port,
                        Secret_Command& command)
{
  const std::string tool = input.oscar_home + "/bin/osrexp";
  const char* const password = input.password.c_str();
  // The schema decides first: a table without one is exported with its whole database.
  if (file.schema.empty())
    command.text.set("\"%s\" -U%s/%s -p%hu -d%s file=%s", tool.c_str(), input.username.c_str(), password,
                     port, input.instance.c_str(), file.file.c_str());
  else if (file.table.empty())
    command.text.set("\"%s\" -U%s/%s -p%hu -d%s level=schema file=%s mode=entirety ignore=false schema=%s "
                     "view=true sequence=true procedure=true constraint=true trigger=true index=true",
                     tool.c_str(), input.username.c_str(), password, port, input.instance.c_str(),
                     file.file.c_str(), file.schema.c_str());
  else
    command.text.set("\"%s\" -U%s/%s -p%hu -d%s level=table file=%s mode=entirety ignore=false table=%s.%s "
                     "view=false procedure=false sequence=false constraint=true trigger=true index=true",
                     tool.c_str(), input.username.c_str(), password, port, input.instance.c_str(),
                     file.file.c_str(), file.schema.c_str(), file.table.c_str());
}

bool export_file(const Backup_Input& input, const Backup_File& file)
{
  unsigned short port = 0;
  if (!look_up_port(input.oscar_home, input.instance, port))
    return false;
  Secret_Command command;
  set_export_command(input, file, port, command);
  if (run_tool(input, command) < 0)
    return false;
  if (!is_regular_file(file.file.c_str())) {
    ACE_ERROR((LM_ERROR, "Osr file does not exist, path: '%s'.\n", file.file.c_str()));
    return false;
  }
  kestrel::ignore_result(::chmod(file.file.c_str(), DUMP_MODE), "whoever reads the file next tells");
  return true;
}

void set_import_command(const Restore_Input& input, unsigned short port, Secret_Command& command)
{
  const std::string tool = input.oscar_home + "/bin/osrimp";
  const char* const password = input.password.c_str();
  if (input.restore_as_schema.empty())
    command.text.set("\"%s\" -U%s/%s -p%hu -d%s file=%s recreateSchema=true tablespace=true", tool.c_str(),
                     input.username.c_str(), password, port, input.restore_as_database.c_str(),
                     input.backup_file.c_str());
  else if (input.restore_as_table.empty())
    command.text.set("\"%s\" -U%s/%s -p%hu -d%s file=%s level=schema mode=entirety ignore=false schema=%s "
                     "recreateschema=true view=true sequence=true procedure=true recreateotherobject=true "
                     "recreatetable=true constraint=false deletetabledata=true trigger=false index=false",
                     tool.c_str(), input.username.c_str(), password, port, input.restore_as_database.c_str(),
                     input.backup_file.c_str(), input.restore_as_schema.c_str());
  else
    command.text.set("\"%s\" -U%s/%s -p%hu -d%s file=%s level=table mode=entirety ignore=false table=%s.%s "
                     "recreateschema=false view=false sequence=true  procedure=false "
                     "recreateotherobject=false recreatetable=true constraint=true deletetabledata=true "
                     "trigger=true index=true",
                     tool.c_str(), input.username.c_str(), password, port, input.restore_as_database.c_str(),
                     input.backup_file.c_str(), input.restore_as_schema.c_str(),
                     input.restore_as_table.c_str());
}

/// The table's import does not make its schema.
void create_schema(const Restore_Input& input, unsigned short port)
{
  const std::string tool = input.oscar_home + "/bin/isql";
  Secret_Command command;
  command.text.set("%s -hlocalhost -p %u -U%s/%s -d %s -c \"create schema if not exists %s\"", tool.c_str(),
                   static_cast<unsigned>(port), input.username.c_str(), input.password.c_str(),
                   input.restore_as_database.c_str(), input.restore_as_schema.c_str());
  kestrel::ignore_result(run_tool(input, command), "without the schema the import itself fails");
}
} // namespace

namespace oscar
{
Logical_Job_Host::~Logical_Job_Host() = default;
}

bool backup(Backup_Input const* input)
{
  if (!OSCAR_POINTER_GIVEN(input))
    return false;
  for (size_t i = 0; i < input->files.size(); ++i) {
    if (input->host)
      input->host->begin_object(input->files[i], i + 1, input->files.size());
    if (!export_file(*input, input->files[i]))
      return false;
  }
  return true;
}

bool restore(Restore_Input const* input)
{
  if (!OSCAR_POINTER_GIVEN(input))
    return false;
  kestrel::ignore_result(::chmod(input->backup_file.c_str(), DUMP_MODE),
                         "the tool tells when it cannot read");
  unsigned short port = 0;
  if (!look_up_port(input->oscar_home, input->restore_as_database, port))
    return false;
  if (input->host)
    input->host->begin_object(
        {input->restore_as_database, input->restore_as_schema, input->restore_as_table, input->backup_file},
        1, 1);
  if (!input->restore_as_schema.empty() && !input->restore_as_table.empty())
    create_schema(*input, port);
  Secret_Command command;
  set_import_command(*input, port, command);
  return run_tool(*input, command) == 0;
}
