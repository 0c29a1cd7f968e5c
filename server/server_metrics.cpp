#include "server/server_metrics.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <mutex>
#include <utility>
#include <vector>

namespace kestrel
{
namespace
{
const prometheus::Histogram::BucketBoundaries buckets = {0.001, 0.005, 0.01, 0.05, 0.1, 0.5, 1, 5, 30};
const char* const catalog_pattern = "/k2/r/catalogs";
} // namespace

struct Server_Metrics::State {
  prometheus::Registry registry;
  prometheus::Family<prometheus::Counter>& requests =
      prometheus::BuildCounter().Name("kestrel_requests_total").Help("Answered requests").Register(registry);
  prometheus::Family<prometheus::Histogram>& durations = prometheus::BuildHistogram()
                                                             .Name("kestrel_request_seconds")
                                                             .Help("Time to answer a request")
                                                             .Register(registry);
  prometheus::Counter& commits = prometheus::BuildCounter()
                                     .Name("kestrel_catalog_commits_total")
                                     .Help("Backups that agents added to the catalog")
                                     .Register(registry)
                                     .Add({});
  std::mutex mutex; // of the gauges: two readers must not mix their numbers
  std::vector<std::pair<prometheus::Gauge*, std::function<double()>>> gauges;
};

Server_Metrics::Server_Metrics() : state_(new State) {}
Server_Metrics::~Server_Metrics() {}

void Server_Metrics::request(const std::string& method, const std::string& pattern, int status,
                             double seconds)
{
  // A client chooses its method freely where no resource does.
  const std::string known_method = pattern.empty() ? "other" : method;
  const std::string path = pattern.empty() ? "other" : pattern;
  state_->requests.Add({{"method", known_method}, {"path", path}, {"status", std::to_string(status)}})
      .Increment();
  state_->durations.Add({{"method", known_method}, {"path", path}}, buckets).Observe(seconds);
  if (method == "POST" && pattern == catalog_pattern && status < 300)
    state_->commits.Increment();
}

void Server_Metrics::add_gauge(const std::string& name, const std::string& help,
                               std::function<double()> value)
{
  prometheus::Gauge& gauge =
      prometheus::BuildGauge().Name(name).Help(help).Register(state_->registry).Add({});
  state_->gauges.emplace_back(&gauge, std::move(value));
}

std::string Server_Metrics::text()
{
  std::lock_guard<std::mutex> guard(state_->mutex);
  for (const auto& gauge : state_->gauges)
    gauge.first->Set(gauge.second());
  return prometheus::TextSerializer().Serialize(state_->registry.Collect());
}
} // namespace kestrel
