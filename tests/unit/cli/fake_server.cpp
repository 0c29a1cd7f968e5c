#include "fake_server.h"

#include "json/json_util.h"

namespace kestrel_test
{
void Fake_Server::answer(const std::string& line, int status, const std::string& body)
{
  answers_[line] = [status, body](const Request&) { return std::make_pair(status, body); };
  once_.erase(line);
}

void Fake_Server::answer(const std::string& line, Answer answer)
{
  answers_[line] = std::move(answer);
}

void Fake_Server::answer_once(const std::string& line, int status, const std::string& body)
{
  once_[line].emplace_back(status, body);
}

unsigned Fake_Server::count(const std::string& line) const
{
  unsigned count = 0;
  for (const Request& request : requests_)
    count += request.line == line ? 1 : 0;
  return count;
}

json_spirit::Value Fake_Server::last_body(const std::string& line) const
{
  for (auto request = requests_.rbegin(); request != requests_.rend(); ++request)
    if (request->line == line)
      return request->body;
  return json_spirit::Value();
}

bool Fake_Server::perform(const kestrel::REST_Call& call, kestrel::REST_Answer& answer,
                          kestrel::REST_Problem& problem)
{
  if (away_ > 0) {
    --away_;
    problem.kind = kestrel::REST_Problem::unreachable;
    problem.text = "nobody is there";
    return false;
  }
  Request request;
  request.line = std::string(call.method) + " " + call.path.substr(0, call.path.find('?'));
  std::string error;
  if (call.has_body && !kestrel::read_json(std::string(static_cast<const char*>(call.body), call.body_bytes),
                                           request.body, error))
    request.body = error;
  requests_.push_back(request);
  std::pair<int, std::string> found(404,
                                    R"({"error":{"code":"not_found","message":"no such resource here"}})");
  const auto once = once_.find(request.line);
  const auto lasting = answers_.find(request.line);
  if (once != once_.end() && !once->second.empty()) {
    found = once->second.front();
    once->second.pop_front();
  } else if (lasting != answers_.end())
    found = lasting->second(request);
  answer.status = found.first;
  answer.body = found.second;
  answer.content_type = "application/json";
  return true;
}
} // namespace kestrel_test
