#pragma once

#include "remote/rest_client.h"
#include "json/value.h"

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kestrel_test
{
/// A backup server that answers as it was told, without a network.
/// Threads: one.
class Fake_Server : public kestrel::REST_Transport
{
public:
  struct Request {
    std::string line; ///< "GET /k2/r/hosts"
    json_spirit::Value body;
  };
  typedef std::function<std::pair<int, std::string>(const Request&)> Answer;

  /// From now on requests like "GET /k2/r/hosts" (a query behind it does not count) get this answer; what was
  /// told before is forgotten.
  void answer(const std::string& line, int status, const std::string& body);
  void answer(const std::string& line, Answer answer);
  /// The next request like this gets this answer, the one after it the next; then the lasting one counts.
  void answer_once(const std::string& line, int status, const std::string& body);
  /// The next `count` requests find nobody.
  void be_away(unsigned count) { away_ = count; }

  const std::vector<Request>& requests() const { return requests_; }
  unsigned count(const std::string& line) const;
  /// The body of the last request like this; null when there was none.
  json_spirit::Value last_body(const std::string& line) const;

  bool perform(const kestrel::REST_Call& call, kestrel::REST_Answer& answer,
               kestrel::REST_Problem& problem) override;

private:
  std::map<std::string, Answer> answers_;
  std::map<std::string, std::deque<std::pair<int, std::string>>> once_;
  std::vector<Request> requests_;
  unsigned away_ = 0;
};
} // namespace kestrel_test
