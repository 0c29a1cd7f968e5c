#pragma once

#include <functional>
#include <memory>
#include <string>

namespace kestrel
{
/// What the server counts, in the text format of Prometheus.
/// Threads: any; add_gauge() before the first text().
class Server_Metrics
{
public:
  Server_Metrics();
  ~Server_Metrics();
  Server_Metrics(const Server_Metrics&) = delete;
  Server_Metrics& operator=(const Server_Metrics&) = delete;

  /// `pattern` is the resource's, so that ids do not make series of their own; "" for a path nobody knows.
  void request(const std::string& method, const std::string& pattern, int status, double seconds);
  /// A number that is asked for whenever somebody reads the metrics.
  void add_gauge(const std::string& name, const std::string& help, std::function<double()> value);
  std::string text();

private:
  struct State;
  const std::unique_ptr<State> state_;
};
} // namespace kestrel
