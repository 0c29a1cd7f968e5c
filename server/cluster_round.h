#pragma once

#include "server/cluster_choice.h"
#include "json/value.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace kestrel
{
/// What an agent asks for.
struct Cluster_Request {
  std::string host_uuid; ///< of the agent
  std::string definition_uuid;
  std::string uid;
  std::string instance_uuid;
  bool select_master = false;
  /// The agent's name for this request. Sent again when no answer came, it is the same request; empty: each
  /// is another one.
  std::string request_id;
};

/// What the server knows of the job when the first request for it comes.
struct Cluster_Job {
  enum class Kind { unknown, backup, restore };
  Kind kind = Kind::unknown;
  /// True: `hosts` are all that may do it. False: nobody defined it here, and whoever asks is a candidate.
  bool defined = false;
  std::vector<std::string> hosts;
  std::string name;
  std::string instance; ///< name; empty when it could not be found out
  std::string virtual_address;
};

/// How a call of an agent ended.
enum class Agent_Call {
  answered,
  refused, ///< the agent answered with an error
  offline, ///< nothing was sent
  lost,    ///< sent, and the connection ended before the answer came
  late     ///< sent, and no answer came in time
};

/// How a question for a node's state ended. `problem` is empty exactly when the rest is set.
struct Node_State {
  Agent_Call call = Agent_Call::answered;
  std::string problem;
  int node_id = -1;
  bool is_master = false;
  bool online = false;
};

/// Reads the answer of an agent that was asked for its node's state. False: `state` holds only the problem.
[[nodiscard]] bool read_node_state(const json_spirit::Value& answer, Node_State& state);

struct Cluster_Limits {
  /// Requests of one definition within this time share one choice.
  int64_t window_msec = 3000;
  int64_t state_msec = 5000; ///< for the answer to a question for a node's state
  /// A host that has not asked yet joins a choice made within this time: its clock may be off.
  int64_t late_msec = 60000;
  /// How long after the reply an announcement may still go out. An agent waits for it 16 seconds or longer;
  /// an announcement that nobody waits for any more would be taken by the next run of the job.
  int64_t announce_msec = 14000;
  /// How long the others wait for the chosen node to take its announcement; then another is chosen.
  int64_t hold_msec = 3000;
  /// Choices that are not over, in all and of those that one host began; of jobs that nobody defined on the
  /// server half as many, so that they leave room for the others.
  size_t rounds = 4000;
  /// How long after its first arrival a request may come again. An agent repeats it for 30 seconds.
  int64_t repeat_msec = 45000;
  size_t rounds_of_host = 200;
  /// Requests of one host that one choice takes. Each is memory and a part of what is kept with every step; an
  /// agent asks once for each run.
  size_t requests_of_host = 50;
};

/// What a round must know of the hosts.
class Host_View
{
public:
  virtual ~Host_View();
  virtual std::string name(const std::string& host_uuid) = 0;
  virtual bool connected(const std::string& host_uuid) = 0;
  /// Jobs under way there, but for this definition.
  virtual unsigned running_jobs(const std::string& host_uuid, const std::string& definition_uuid) = 0;
  /// Number of the selection that chose it last, 0 = none.
  virtual int64_t last_chosen(const std::string& host_uuid) = 0;
};

/// One choice of a node: from the first request until every request got its announcement.
///
/// A passive object: the owner tells it what happened and when, and asks what to do next. Every request gets
/// a ticket; its announcement is due when the choice is made and its reply was written, and goes out at most
/// once: when it was sent and no answer came, it may have arrived, and a second one would be taken by the
/// next run. The chosen node hears first. When it cannot be told, nobody knows of the choice yet, and another
/// node is chosen; once it may know, the choice stands.
///
/// After a restart of the server a round goes on from what it kept: the same job and the same selection time
/// for requests that come, and its announcements for those whose agents still wait. Where it is not known
/// whether a request was answered, or an announcement sent, nothing is announced any more. Threads: the
/// owner's lock. Units: milliseconds of the owner's monotonic clock.
class Cluster_Round
{
public:
  struct Announcement {
    unsigned ticket = 0;
    std::string host_uuid;
    json_spirit::Value params;
  };

  Cluster_Round(const Cluster_Limits& limits, Cluster_Job job, const Cluster_Request& first,
                int64_t selection_time, int64_t number, int64_t now);

  /// The round that kept() tells of, in a server that was started again; null when nobody waits for it any
  /// more and no request can join it. Errors: throws std::exception when `kept` is not usable.
  static std::unique_ptr<Cluster_Round> resume(const Cluster_Limits& limits, const json_spirit::Object& kept,
                                               int64_t selection_time, int64_t number, int64_t now);
  /// All that a next server must know of it.
  json_spirit::Object kept() const;

  /// Whether a request of this host belongs to this round.
  bool takes(const std::string& host_uuid, int64_t now) const;
  unsigned add(const Cluster_Request& request, int64_t now);
  size_t requests_of(const std::string& host_uuid) const;
  /// True when this very request has come before, whatever takes() says: its ticket then waits for the new
  /// reply, unless its announcement may have gone out, which is never repeated.
  bool repeated(const Cluster_Request& request, int64_t now, unsigned& ticket);
  /// How often the ticket's request has come.
  unsigned asked(unsigned ticket) const { return tickets_.at(ticket).asked; }
  /// `written` false: the reply never left, and the agent does not wait. `asked`: which of the request's
  /// comings it was the reply to, from 1 on; only the last one counts.
  void reply_written(unsigned ticket, bool written, int64_t now, unsigned asked = 1);

  /// Hosts to be asked for their node's state now; each is asked once, and again when it was not reached.
  std::vector<std::string> take_questions(Host_View& view, int64_t now);
  json_spirit::Value question() const;
  void answered(const std::string& host_uuid, const Node_State& state);

  /// True when the choice has just been made.
  bool decide(Host_View& view, int64_t now);
  bool decided() const { return decided_; }

  /// Announcements to send now; kept() tells that they may have been sent, and must be kept before they are.
  std::vector<Announcement> take_announcements(Host_View& view, int64_t now);
  /// False: it could not be sent, and it is due again.
  bool announced(Host_View& view, unsigned ticket, Agent_Call call, const std::string& problem);
  /// Chooses again when the chosen node cannot be told, and gives up announcements whose time is over: the
  /// names of the hosts that wait in vain.
  std::vector<std::string> give_up(Host_View& view, int64_t now);

  /// Nothing is left to do and no request joins any more.
  bool finished(int64_t now) const;
  /// No later request joins.
  void close()
  {
    closed_ = true;
    ++version_;
  }

  int64_t number() const { return number_; }
  int64_t selection_time() const { return selection_time_; }
  const Cluster_Job& job() const { return job_; }
  const Node_Choice& choice() const { return choice_; }
  const std::string& definition_uuid() const { return first_.definition_uuid; }
  const std::string& begun_by() const { return first_.host_uuid; }
  /// The whole explanation, as the history keeps it.
  json_spirit::Object explanation(Host_View& view) const;
  /// Counts every change of what explanation() and kept() tell.
  unsigned version() const { return version_; }

private:
  enum class Question { none, open, done };
  struct Candidate {
    std::string host_uuid;
    bool asked = false;
    Question question = Question::none;
    unsigned tries = 0;
    Node_State state;
    std::string excluded; ///< why it was given up after it had been chosen
    // As they were when the choice was made.
    bool connected = false;
    unsigned running_jobs = 0;
    int64_t last_chosen = 0;
  };
  enum class Ticket_State { waiting, ready, sending, done };
  struct Ticket {
    std::string host_uuid;
    std::string request_id;
    unsigned asked = 1;
    bool may_know = false; ///< an announcement went out, or may have
    Ticket_State state = Ticket_State::waiting;
    bool replied = false;
    bool delivered = false;
    bool settled = false; ///< what became of it is known
    bool resumed = false; ///< of before a restart of the server
    bool lost = false;    ///< resumed, and it is not known whether the request was answered
    int64_t made_at = 0;
    int64_t replied_at = 0;
    std::string problem;
  };

  Candidate* find(const std::string& host_uuid);
  bool wants_answer(const Candidate& candidate, Host_View& view) const;
  bool all_heard(Host_View& view) const;
  std::vector<Node_Candidate> candidates(Host_View& view) const;
  json_spirit::Value announcement_params() const;
  bool may_go_out(const Ticket& ticket) const;
  bool others_wait() const;
  bool chosen_is_gone(int64_t now) const;
  bool waits(const std::string& host_uuid) const;
  void choose(Host_View& view);
  void choose_without_chosen(Host_View& view, const std::string& why);
  void settle(Ticket& ticket, bool delivered, const std::string& problem);
  bool anybody_waits() const;
  void supersede(const std::string& host_uuid);
  json_spirit::Object kept_candidate(const Candidate& candidate) const;
  void resume_candidate(const json_spirit::Object& kept);
  void resume_ticket(const json_spirit::Object& kept);
  void resume_members(const json_spirit::Object& kept, int64_t now);

  const Cluster_Limits limits_;
  const Cluster_Job job_;
  const Cluster_Request first_;
  const int64_t selection_time_;
  const int64_t number_;
  const int64_t opened_at_;
  int64_t window_end_; ///< when the choice is made without those that have not come
  bool select_master_ = false;
  bool decided_ = false;
  bool closed_ = false;
  bool resumed_ = false;
  bool interrupted_ = false; ///< resumed, and nobody waited any more
  int64_t resume_until_ = 0; ///< how long agents may take to come back after the restart
  bool chosen_told_ = false; ///< the chosen node knows, or may know
  int64_t decided_at_ = 0;
  unsigned version_ = 0;
  Node_Choice choice_;
  std::deque<Candidate> candidates_;
  std::deque<Ticket> tickets_;
};
} // namespace kestrel
