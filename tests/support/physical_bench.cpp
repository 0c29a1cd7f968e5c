#include "support/physical_bench.h"

#include "catalog/catalog_operator.h"
#include "instances/instance_registry.h"
#include "job/default_job_t.h"
#include "oscar/brcmd_backup_executor.h"
#include "oscar/brcmd_restore_executor.h"
#include "process/process_api.h"
#include "storage/pool_registry.h"
#include "support/fake_tool.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel_test
{
namespace
{
const char DEFINITION_ID[] = "7d3a1c52-0000-4000-8000-0000000000d1";
const char USER_ID[] = "7d3a1c52-0000-4000-8000-0000000000e1";
const int64_t END_TIMEOUT_MSEC = 120 * 1000;

std::string isql_answer(const std::string& cell)
{
  return "out \" archivemode\"\nout \"-------------\"\nout \"" + cell + "\"\nout \"(1 row)\"\n";
}

uint32_t big_endian_byte(uint32_t value, int index)
{
  return (value >> (24 - 8 * index)) & 0xff;
}

/// The same random bytes each time. Kept, because the fault loops want them hundreds of times, and a
/// sanitizer makes them slow to come by.
std::string image(size_t bytes)
{
  static std::string kept;
  static uint32_t value = 1;
  while (kept.size() < bytes) {
    value = value * 1664525u + 1013904223u;
    kept += static_cast<char>(value >> 24);
  }
  return kept.substr(0, bytes);
}
} // namespace

Fake_Server::Fake_Server(const Temp_Dir& dir, const std::string& script)
{
  kestrel::Spawn_Request request;
  request.program =
      make_fake_tool(dir, "home/bin/oscar", "write_file " + (dir / "server_up") + " up\n" + script);
  request.argv = {request.program, "-d", "PHYS7"};
  pid_ = kestrel::process_api().spawn(request);
  EXPECT_GT(pid_, 0);
  reaper_ = std::thread([this] { ::waitpid(pid_, nullptr, 0); });
  dir.write("home/admin/PHYS7.db", std::to_string(pid_) + "\n");
  EXPECT_TRUE(wait_for_file(dir / "server_up"));
}

Fake_Server::~Fake_Server()
{
  ::kill(pid_, SIGKILL);
  reaper_.join();
}

bool Fake_Server::running() const
{
  return ::kill(pid_, 0) == 0;
}

Physical_Bench::Physical_Bench(unsigned time_factor)
    : root("KESTREL_ROOT", dir / "root"), search_path("PATH", (dir / "sys") + ":" + ::getenv("PATH")),
      clock(time_factor), home(dir / "home"), pool_dir(dir.make_dir("pool")), children_before_(children())
{
  dir.make_dir("home/bin");
  dir.make_dir("home/admin");
  dir.make_dir("home/agent");
  dir.make_dir("sys");
  data_file = dir.write("home/data.dbf", "data");
  port = listener_.port();
  dir.write("home/admin/PHYS7.conf", "port = " + std::to_string(port) + "\n");
  // Found through PATH, so it does not know its own place: a plain script.
  dir.write("sys/systemctl", "#!/bin/sh\necho \"$*\" >>" + (dir / "starts") + "\n", 0755);
  set_isql("ARCHIVELOG");
  set_brcmd(good_backup(), good_restore());
  set_stream(make_good_stream(100000));
  set_next_state("full-1", "full-1", 10);
  register_instance();
  add_pool();
  // The tool's own complaint when a failing job closes the FIFO; its exit status is what counts.
  log.allow(LM_ERROR, "cannot write: Broken pipe");
}

Physical_Bench::~Physical_Bench()
{
  EXPECT_TRUE(fifos().empty());
  EXPECT_EQ(children_before_, children()) << "a child process is left";
  EXPECT_FALSE(log.contains(secret));
}

void Physical_Bench::register_instance()
{
  std::shared_ptr<Instance> instance = std::make_shared<Instance>();
  instance->type = "oscar";
  instance->name = "PHYS7";
  instance->options["oscar_home"] = home;
  kestrel::Instance_Registry registry("host-1");
  std::string error;
  EXPECT_EQ(0, registry.merge_probe({{"PHYS7", instance}}, error)) << error;
  EXPECT_EQ(0, registry.set_account("oscar", "PHYS7", "", "sysdba", secret.c_str(), error)) << error;
}

void Physical_Bench::add_pool()
{
  Pool_Info pool;
  std::string error;
  EXPECT_TRUE(kestrel::Pool_Registry().add("main", pool_dir, pool, error)) << error;
  pool_id = pool.pool_id;
}

void Physical_Bench::set_brcmd(const std::string& backup_steps, const std::string& restore_steps)
{
  make_fake_tool(dir, "home/bin/brcmd",
                 "remove " + (dir / "args") + "\ndump_args " + (dir / "args") +
                     "\nif args_contain \"-O backup\"\n" + backup_steps + "\nelse\n" + restore_steps +
                     "\nend\n");
}

void Physical_Bench::set_isql(const std::string& log_mode_answer)
{
  make_fake_tool(dir, "home/bin/isql",
                 "if args_contain archivemode\n" + isql_answer(log_mode_answer) +
                     "else\nif args_contain \"shutdown immediate\"\nappend_file " + (dir / "shutdown") +
                     " \"${args}\\n\"\nend\nend\n");
}

std::string Physical_Bench::good_backup() const
{
  return "begin ${option:-f}\nput_file " + (dir / "stream") + "\nfinish\nreplace " + (dir / "next_state") + " " +
         home + "/agent/lastlsn.dat\n";
}

std::string Physical_Bench::good_restore() const
{
  return "read_to ${option:-f} " + (dir / "fed") + "\n";
}

std::string Physical_Bench::marking_restore() const
{
  return good_restore() + "write_file " + (dir / "restored") + " x\n";
}

void Physical_Bench::set_stream(const std::string& stream)
{
  dir.write("stream", stream);
}

std::string Physical_Bench::make_good_stream(size_t image_bytes) const
{
  const std::string info = "# stand-in\n" + data_file + "=" + std::to_string(image_bytes + 1000) + "\n";
  const uint32_t length = static_cast<uint32_t>(512 + info.size());
  std::string stream(512, '\x5a');
  for (int i = 0; i < 4; ++i)
    stream[static_cast<size_t>(i)] = static_cast<char>(big_endian_byte(length, i));
  return stream + info + image(image_bytes);
}

void Physical_Bench::set_next_state(const std::string& full, const std::string& last, unsigned number)
{
  dir.write("next_state", state_text(full, last, number));
}

std::string Physical_Bench::state_text(const std::string& full, const std::string& last,
                                       unsigned number) const
{
  std::ostringstream text;
  text << "PHYS7_lastfullbackupid=" << full << "\nPHYS7_lastfullbackuplsn=10\nPHYS7_lastfullbackupscn=11\n"
       << "PHYS7_lastbackupid=" << last << "\nPHYS7_lastbackuplsn=" << number
       << "\nPHYS7_lastbackupscn=" << number + 1 << "\n";
  return text.str();
}

kestrel::Job_Definition_Fields Physical_Bench::backup_fields(Job_Definition_Subtype subtype) const
{
  kestrel::Job_Definition_Fields fields;
  fields.type = JOB_DEFINITION_BACKUP;
  fields.subtype = subtype;
  fields.id = DEFINITION_ID;
  fields.uid = USER_ID;
  fields.name = "nightly";
  fields.agent = "agent-1";
  fields.host_id = "host-1";
  fields.target = Job_Target(pool_id);
  oscar::Backup_Job_Source* const source = new oscar::Backup_Job_Source;
  source->id(source_id);
  source->entries() = {"oscar/PHYS7"};
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
  fields.options = ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex>(new oscar::Backup_Job_Options);
  return fields;
}

kestrel::Job_Definition_Fields Physical_Bench::restore_fields(const std::string& backup_id) const
{
  kestrel::Job_Definition_Fields fields = backup_fields();
  fields.type = JOB_DEFINITION_RESTORE;
  fields.subtype = JOB_DEFINITION_SUBTYPE_POINT_IN_TIME;
  oscar::Restore_Job_Source* const source = new oscar::Restore_Job_Source;
  source->id(source_id);
  source->name("PHYS7");
  source->catalog_id(backup_id);
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
  fields.options = ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex>(new oscar::Restore_Job_Options);
  return fields;
}

Job_Ptr Physical_Bench::make_job(const kestrel::Job_Definition_Fields& fields)
{
  const ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> definition(new Job_Definition(fields));
  if (fields.type == JOB_DEFINITION_BACKUP)
    return Job_Ptr(new Controllable_Job_T<oscar::Oscar_Brcmd_Backup_Executor>(definition), false);
  return Job_Ptr(new Controllable_Job_T<oscar::Oscar_Brcmd_Restore_Executor>(definition), false);
}

Job_State Physical_Bench::wait_end(const Job_Ptr& job)
{
  EXPECT_TRUE(job->wait_end(END_TIMEOUT_MSEC)) << "the job hangs in state " << job->state();
  // Its thread may still hold the job, and with it the definition's activity record.
  EXPECT_TRUE(Job::wait_all_runs(END_TIMEOUT_MSEC));
  return job->state();
}

Job_State Physical_Bench::run(const Job_Ptr& job)
{
  EXPECT_EQ(0, job->start());
  return wait_end(job);
}

Job_State Physical_Bench::run(const kestrel::Job_Definition_Fields& fields, std::vector<int>* codes)
{
  const Job_Ptr job = make_job(fields);
  const Job_State state = run(job);
  if (codes)
    *codes = alerts(job);
  return state;
}

std::vector<int> Physical_Bench::alerts(const Job_Ptr& job)
{
  std::vector<int> codes;
  for (const kestrel::Job_Alert& alert : job->alerts()) {
    EXPECT_EQ(7, alert.category);
    codes.push_back(alert.code);
  }
  return codes;
}

void Physical_Bench::back_up(Job_Definition_Subtype subtype)
{
  EXPECT_EQ(JOB_STATE_COMPLETED, run(backup_fields(subtype)));
}

json_spirit::Array Physical_Bench::rows() const
{
  json_spirit::Value result;
  EXPECT_TRUE(Catalog_Operator(-1, 0).get_view(
      "oscar_brcmd", "catalogs", {{"resource_uuid", source_id}, {"sort", "start_time"}}, result));
  return json_spirit::find_value(result.get_obj(), "rows").get_array();
}

std::vector<std::string> Physical_Bench::stored_files() const
{
  return list(pool_dir + "/" + source_id);
}

std::vector<std::string> Physical_Bench::whole_files() const
{
  std::vector<std::string> names;
  for (const std::string& name : stored_files())
    if (name.find(".partial") == std::string::npos && name.find(".meta") == std::string::npos)
      names.push_back(name);
  return names;
}

void Physical_Bench::expect_recovery(size_t uncommitted)
{
  EXPECT_TRUE(fifos().empty());
  EXPECT_EQ(children_before_, children());
  EXPECT_TRUE(rows().empty());
  EXPECT_EQ(uncommitted, whole_files().size());
  set_isql("ARCHIVELOG");
  set_brcmd(good_backup(), good_restore());
  set_stream(make_good_stream(100000));
  back_up();
  EXPECT_EQ(1u, rows().size());
  EXPECT_EQ(uncommitted + 1, whole_files().size());
}

std::vector<std::string> Physical_Bench::fifos() const
{
  return list(dir / "root/var/opt/tarnvik/kestrel3/agent/oscar");
}

unsigned Physical_Bench::starts() const
{
  if (!exists(dir / "starts"))
    return 0;
  const std::string text = read_file(dir / "starts");
  return static_cast<unsigned>(std::count(text.begin(), text.end(), '\n'));
}

std::string Physical_Bench::brcmd_arguments() const
{
  std::istringstream lines(read_file(dir / "args"));
  std::string line, all;
  while (std::getline(lines, line) && line != "--")
    all += (all.empty() ? "" : " ") + line;
  return all;
}

bool Physical_Bench::wait_streamed(const Job_Ptr& job)
{
  return eventually([&job] { return job->activity()->progress >= 99; });
}

std::vector<std::string> Physical_Bench::list(const std::string& directory)
{
  std::vector<std::string> names;
  if (DIR* const stream = ::opendir(directory.c_str())) {
    while (const dirent* const entry = ::readdir(stream))
      if (entry->d_name[0] != '.')
        names.push_back(entry->d_name);
    ::closedir(stream);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<pid_t> Physical_Bench::children()
{
  std::vector<pid_t> pids;
  for (const std::string& thread : list("/proc/self/task")) {
    std::ifstream file("/proc/self/task/" + thread + "/children");
    pid_t pid;
    while (file >> pid)
      pids.push_back(pid);
  }
  std::sort(pids.begin(), pids.end());
  return pids;
}
} // namespace kestrel_test
