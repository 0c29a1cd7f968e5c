// A swarm of simulated agents on one backup server. Each agent speaks the real protocol over TLS, runs its
// definitions, reports every run and loses its connection now and then; jobs are controlled meanwhile. At the
// end every run that ended on an agent must be found at the server. Exit status: 0, 1 when anything was lost,
// 2 for wrong options.

#include "base/uuid.h"
#include "swarm_agent.h"
#include "json/json_util.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

using namespace kestrel;
using kestrel_test::member_text;

namespace
{
struct Options {
  std::string server;      ///< https://host:port
  std::string enrollments; ///< directory of enrollment files
  std::string token_file;  ///< holds the token of an operator's session
  unsigned agents = 50;
  unsigned definitions = 500;
  unsigned seconds = 20;
  int server_pid = 0; ///< its memory is watched
};

const char* const usage =
    "usage: agent_swarm --server URL --enrollments DIR --token-file FILE [--agents 50]\n"
    "                   [--definitions 500] [--seconds 20] [--server-pid PID]\n";

bool read_options(int argc, char** argv, Options& options)
{
  std::map<std::string, std::string> given;
  for (int i = 1; i + 1 < argc; i += 2)
    given[argv[i]] = argv[i + 1];
  if (argc % 2 == 0)
    return false;
  const auto number = [&](const char* name, unsigned otherwise) {
    return given.count(name) ? static_cast<unsigned>(std::stoul(given[name])) : otherwise;
  };
  options.server = given["--server"];
  options.enrollments = given["--enrollments"];
  options.token_file = given["--token-file"];
  options.agents = number("--agents", options.agents);
  options.definitions = number("--definitions", options.definitions);
  options.seconds = number("--seconds", options.seconds);
  options.server_pid = static_cast<int>(number("--server-pid", 0));
  return !options.server.empty() && !options.enrollments.empty() && !options.token_file.empty() &&
         options.agents > 0;
}

std::string read_text(const std::string& path)
{
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  if (!file)
    throw std::runtime_error("cannot read " + path);
  return text.str();
}

std::vector<kestrel_test::Enrollment> read_enrollments(const Options& options)
{
  std::vector<std::string> paths;
  if (DIR* const directory = ::opendir(options.enrollments.c_str())) {
    while (const dirent* const entry = ::readdir(directory))
      if (entry->d_name[0] != '.')
        paths.push_back(options.enrollments + "/" + entry->d_name);
    ::closedir(directory);
  }
  std::sort(paths.begin(), paths.end());
  if (paths.size() < options.agents)
    throw std::runtime_error(options.enrollments + ": " + std::to_string(paths.size()) +
                             " enrollment files for " + std::to_string(options.agents) + " agents");
  paths.resize(options.agents);
  std::vector<kestrel_test::Enrollment> enrollments;
  for (const std::string& path : paths) {
    enrollments.push_back(kestrel_test::read_enrollment(read_text(path)));
    enrollments.back().url = options.server;
  }
  return enrollments;
}

/// In KiB; 0 when it is not known.
long server_memory(int pid)
{
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line))
    if (line.compare(0, 6, "VmRSS:") == 0)
      return std::stol(line.substr(6));
  return 0;
}

class Swarm
{
public:
  explicit Swarm(const Options& options) : options_(options) {}
  bool run();

private:
  void start();
  void define(unsigned first, unsigned step);
  void control();
  void show();
  std::set<std::string> stored_runs(const std::string& host);
  bool check();

  const Options options_;
  Network_Threads network_;
  Swarm_Counts counts_;
  std::unique_ptr<REST_Client> console_;
  std::vector<std::unique_ptr<Swarm_Agent>> agents_;
  std::mutex mutex_;
  std::vector<std::string> definitions_;
  std::set<std::string> promised_; ///< runs that the server said had begun
  std::atomic<bool> ending_{false};
  std::atomic<uint64_t> controls_{0};
  std::atomic<uint64_t> failed_controls_{0};
  const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
};

void Swarm::start()
{
  if (!network_.start(2))
    throw std::runtime_error("the network threads do not start");
  const std::vector<kestrel_test::Enrollment> enrollments = read_enrollments(options_);
  REST_Client_Options client;
  client.url = options_.server;
  client.ca_pem = enrollments.front().ca_pem;
  client.bearer = read_text(options_.token_file);
  client.bearer.erase(client.bearer.find_last_not_of(" \n") + 1);
  console_ = std::make_unique<REST_Client>(client);
  uint32_t seed = 1;
  for (const kestrel_test::Enrollment& enrollment : enrollments)
    agents_.push_back(std::make_unique<Swarm_Agent>(network_, enrollment, counts_, seed++));
  for (const std::unique_ptr<Swarm_Agent>& agent : agents_)
    agent->start();
}

/// Every tenth definition is one of a cluster of three.
void Swarm::define(unsigned first, unsigned step)
{
  for (unsigned i = first; i < options_.definitions; i += step) {
    const std::string id = make_uuid();
    const bool cluster = i % 10 == 0 && agents_.size() >= 3;
    json_spirit::Array hosts;
    for (unsigned host = 0; host < (cluster ? 3u : 1u); ++host)
      hosts.push_back(agents_[(i + host) % agents_.size()]->uuid());
    json_spirit::Value document;
    std::string error;
    if (!read_json(R"({"type":"backup","name":"swarm","target":{"id":"pool"},)"
                   R"("source":{"id":"r","entries":["oscar/DB1"]},"schedules":[{"type":7}]})",
                   document, error))
      throw std::runtime_error(error);
    set_value(document.get_obj(), "uid", id);
    if (cluster)
      set_value(document.get_obj(), "rsrc_form", "cluster");
    json_spirit::Object body;
    body.emplace_back("id", id);
    body.emplace_back("hosts", std::move(hosts));
    body.emplace_back("document", std::move(document));
    json_spirit::Value reply;
    REST_Problem problem;
    if (!console_->post("/k2/r/jobs", body, reply, problem))
      throw std::runtime_error("a definition was refused: " + problem.text);
    const std::lock_guard<std::mutex> guard(mutex_);
    definitions_.push_back(id);
  }
}

void Swarm::control()
{
  std::mt19937 random(static_cast<uint32_t>(std::hash<std::thread::id>()(std::this_thread::get_id())));
  json_spirit::Object body;
  body.emplace_back("action", "run");
  while (!ending_) {
    std::string id;
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      if (!definitions_.empty())
        id = definitions_[random() % definitions_.size()];
    }
    json_spirit::Value reply;
    REST_Problem problem;
    if (!id.empty() && console_->post(rest_path({"jobs", id, "control"}), body, reply, problem)) {
      ++controls_;
      const std::lock_guard<std::mutex> guard(mutex_);
      for (const json_spirit::Value& entry :
           json_spirit::find_value(reply.get_obj(), "results").get_array()) {
        const std::string run = member_text(entry.get_obj(), "run_id");
        if (!run.empty())
          promised_.insert(run);
      }
    } else
      ++failed_controls_;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

void Swarm::show()
{
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - began_).count();
  const auto count = [](const std::atomic<uint64_t>& value) {
    return static_cast<unsigned long>(value.load());
  };
  std::printf("%4ld s: %lu connected (%lu connections, %lu failed), runs %lu ended %lu reported (%lu reports "
              "failed), "
              "controls %lu (%lu failed), selections %lu (%lu failed), announcements %lu, server %ld KiB\n",
              static_cast<long>(seconds), count(counts_.connected), count(counts_.connections),
              count(counts_.failed_connections), count(counts_.runs), count(counts_.reported),
              count(counts_.failed_reports), count(controls_), count(failed_controls_),
              count(counts_.selections), count(counts_.failed_selections), count(counts_.announcements),
              options_.server_pid ? server_memory(options_.server_pid) : 0);
  std::fflush(stdout);
}

std::set<std::string> Swarm::stored_runs(const std::string& host)
{
  std::set<std::string> ids;
  std::string next;
  do {
    json_spirit::Value reply;
    REST_Problem problem;
    std::vector<std::pair<std::string, std::string>> query = {{"host", host}, {"limit", "1000"}};
    if (!next.empty())
      query.emplace_back("before", next);
    if (!console_->get(rest_path({"runs"}, query), reply, problem))
      throw std::runtime_error("the runs cannot be read: " + problem.text);
    for (const json_spirit::Value& run : json_spirit::find_value(reply.get_obj(), "runs").get_array())
      ids.insert(member_text(run.get_obj(), "run_id"));
    next = member_text(reply.get_obj(), "next");
  } while (!next.empty());
  return ids;
}

bool Swarm::check()
{
  bool good = true;
  for (const std::unique_ptr<Swarm_Agent>& agent : agents_)
    agent->end();
  for (const std::unique_ptr<Swarm_Agent>& agent : agents_)
    if (!agent->finish(120)) {
      std::printf("agent %s could not report all of its runs\n", agent->uuid().c_str());
      good = false;
    }
  size_t lost = 0, found = 0;
  std::set<std::string> all;
  for (const std::unique_ptr<Swarm_Agent>& agent : agents_) {
    const std::set<std::string> stored = stored_runs(agent->uuid());
    all.insert(stored.begin(), stored.end());
    for (const std::string& run : agent->runs())
      ++(stored.count(run) ? found : lost);
  }
  size_t unheard = 0;
  for (const std::string& run : promised_)
    unheard += all.count(run) == 0;
  std::printf("%zu runs found at the server, %zu lost; of %zu that were begun by request %zu lost; "
              "announcements that "
              "nobody asked for: %lu\n",
              found, lost, promised_.size(), unheard,
              static_cast<unsigned long>(counts_.surplus_announcements.load()));
  return good && lost == 0 && unheard == 0 && found > 0 && counts_.surplus_announcements == 0;
}

bool Swarm::run()
{
  start();
  std::vector<std::thread> defining;
  std::string problem;
  for (unsigned i = 0; i < 4; ++i)
    defining.emplace_back([this, i, &problem] {
      try {
        define(i, 4);
      } catch (const std::exception& failure) {
        const std::lock_guard<std::mutex> guard(mutex_);
        problem = failure.what();
      }
    });
  for (std::thread& thread : defining)
    thread.join();
  if (!problem.empty())
    throw std::runtime_error(problem);
  std::printf("%zu definitions on %zu agents\n", definitions_.size(), agents_.size());
  std::vector<std::thread> controlling;
  for (int i = 0; i < 2; ++i)
    controlling.emplace_back([this] { control(); });
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options_.seconds);
  while (std::chrono::steady_clock::now() < end) {
    show();
    std::this_thread::sleep_until(std::min(end, std::chrono::steady_clock::now() + std::chrono::seconds(5)));
  }
  ending_ = true;
  for (std::thread& thread : controlling)
    thread.join();
  const bool good = check();
  show();
  agents_.clear();
  network_.stop();
  return good;
}
} // namespace

int main(int argc, char** argv)
{
  try {
    Options options;
    if (!read_options(argc, argv, options)) {
      std::fputs(usage, stderr);
      return 2;
    }
    Swarm swarm(options);
    return swarm.run() ? 0 : 1;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "agent_swarm: %s\n", failure.what());
    return 1;
  }
}
