#pragma once

#include "server/cluster_round.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kestrel_test
{
using namespace kestrel;

class Known_Hosts : public Host_View
{
public:
  std::string name(const std::string& host) override { return "name of " + host; }
  bool connected(const std::string& host) override { return online.count(host) > 0; }
  unsigned running_jobs(const std::string& host, const std::string& definition) override
  {
    EXPECT_EQ(definition, "job");
    return running[host];
  }
  int64_t last_chosen(const std::string& host) override { return chosen[host]; }

  std::set<std::string> online = {"a", "b", "c"};
  std::map<std::string, unsigned> running;
  std::map<std::string, int64_t> chosen;
};

inline Cluster_Job backup_job(const std::vector<std::string>& hosts = {"a", "b", "c"})
{
  Cluster_Job job;
  job.kind = Cluster_Job::Kind::backup;
  job.defined = true;
  job.hosts = hosts;
  job.instance = "DB1";
  job.virtual_address = "10.0.0.9";
  return job;
}

inline Cluster_Request request_of(const std::string& host, bool select_master = false)
{
  Cluster_Request request;
  request.host_uuid = host;
  request.definition_uuid = "job";
  request.uid = "user";
  request.select_master = select_master;
  return request;
}

inline Node_State node(int id, bool is_master = false, bool online = true)
{
  Node_State state;
  state.node_id = id;
  state.is_master = is_master;
  state.online = online;
  return state;
}

inline Node_State failed(Agent_Call call)
{
  Node_State state;
  state.call = call;
  state.problem = "it failed";
  return state;
}

class Cluster_Round_Test : public testing::Test
{
protected:
  typedef std::vector<std::string> Hosts;

  void begin(Cluster_Job job = backup_job(), bool select_master = false)
  {
    round_.reset(new Cluster_Round(Cluster_Limits(), std::move(job), request_of("a", select_master),
                                   1700000000, 17, now_));
  }
  unsigned ask(const std::string& host, bool select_master = false)
  {
    return round_->add(request_of(host, select_master), now_);
  }
  /// The hosts ask, their replies leave, and their nodes answer with 1, 2, 3 ...
  void all_ask_and_answer(const Hosts& hosts = {"a", "b", "c"})
  {
    std::map<std::string, unsigned> tickets;
    for (const std::string& host : hosts)
      tickets[host] = ask(host);
    for (const std::string& host : hosts)
      round_->reply_written(tickets[host], true, now_);
    questions();
    int id = 0;
    for (const char* host : {"a", "b", "c"})
      round_->answered(host, node(++id));
  }
  Hosts questions() { return round_->take_questions(view_, now_); }
  bool decide() { return round_->decide(view_, now_); }
  /// Hosts to be told now; `told` answers for each of them.
  Hosts announce(Agent_Call told = Agent_Call::answered)
  {
    Hosts hosts;
    for (const Cluster_Round::Announcement& announcement : round_->take_announcements(view_, now_)) {
      hosts.push_back(announcement.host_uuid);
      params_ = write_json(announcement.params);
      round_->announced(view_, announcement.ticket, told, told == Agent_Call::answered ? "" : "no");
    }
    return hosts;
  }
  std::string problem_of(const std::string& host) const
  {
    const json_spirit::Object explained = round_->explanation(const_cast<Known_Hosts&>(view_));
    for (const json_spirit::Value& entry : json_spirit::find_value(explained, "candidates").get_array())
      if (json_spirit::find_value(entry.get_obj(), "host_uuid").get_str() == host)
        return json_spirit::find_value(entry.get_obj(), "problem").get_str();
    return "no such candidate";
  }

  int64_t now_ = 1000000;
  Known_Hosts view_;
  std::unique_ptr<Cluster_Round> round_;
  std::string params_;
};
} // namespace kestrel_test
