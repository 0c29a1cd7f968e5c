#include "agent/instance_service.h"
#include "base/path_conf.h"
#include "instances/instance_registry.h"
#include "json/json_util.h"
#include "oscar/instance/oscar_instance_handler.h"

#include <benchmark/benchmark.h>

#include <ace/Log_Msg.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace
{
typedef std::map<std::string, std::shared_ptr<Instance>> Found;

/// The module's handler, but for the tools that discovery runs: what is measured begins when they have ended.
class Discovered_Handler : public Oscar_Instance_Handler
{
public:
  explicit Discovered_Handler(const Found& found) : found_(found) {}
  int probe_instances(Found& instances) override
  {
    instances = found_;
    return 0;
  }

private:
  const Found& found_;
};

/// Instances with a configuration file each below one directory, as the module expects it.
Found make_instances(const std::filesystem::path& home, int64_t count)
{
  std::filesystem::create_directories(home / "admin");
  Found found;
  for (int64_t i = 0; i < count; ++i) {
    const std::string name = "INST" + std::to_string(i);
    std::ofstream(home / "admin" / (name + ".conf")) << "PORT_NUM=" << 20000 + i << "\n";
    auto instance = std::make_shared<Instance>();
    instance->type = "oscar";
    instance->name = name;
    instance->options["oscar_home"] = home.string();
    instance->options["version"] = "2.5.1";
    found[name] = instance;
  }
  return found;
}

/// From the end of discovery to the list as text: `account_for_each` instance has one account.
void list_after_discovery(benchmark::State& state, bool account_for_each, bool first)
{
  ACE_Log_Msg::instance()->priority_mask(LM_ERROR, ACE_Log_Msg::PROCESS);
  char directory[] = "/tmp/instance_bench.XXXXXX";
  if (!::mkdtemp(directory))
    return state.SkipWithError("no directory");
  const std::filesystem::path root(directory);
  ::setenv("KESTREL_ROOT", directory, 1);
  const Found found = make_instances(root / "oscar", state.range(0));
  Discovered_Handler handler(found);
  kestrel::Instance_Registry registry("host-1");
  std::string error;
  for (const auto& [name, instance] : found)
    if (account_for_each && name.size() < 6 && registry.set_account("oscar", name, "", "sysdba", "pw", error) != 0)
      state.SkipWithError(error.c_str());
  kestrel::Instance_Service service(registry, {&handler});
  for (auto _ : state) {
    if (first) {
      state.PauseTiming();
      std::filesystem::remove(kestrel::state_path("instances.json"));
      state.ResumeTiming();
    }
    json_spirit::Array instances;
    if (!service.list(true, instances, error) || instances.size() != found.size())
      state.SkipWithError("the list failed");
    benchmark::DoNotOptimize(kestrel::write_json(instances));
  }
  std::filesystem::remove_all(root);
}

void first_list(benchmark::State& state)
{
  list_after_discovery(state, false, true);
}

void later_list(benchmark::State& state)
{
  list_after_discovery(state, true, false);
}

BENCHMARK(first_list)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5);
BENCHMARK(later_list)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5);
} // namespace
