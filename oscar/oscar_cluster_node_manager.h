#pragma once

#include "base/backoff.h"
#include "instances/instance.h"
#include "json/value.h"

#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>
#include <ace/Thread_Mutex.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace oscar
{
/// What the local node is within its cluster. Meaningful only once get_cluster_node_info() has filled it.
struct Cluster_Node {
  std::string instance; // stays empty
  int32_t master_id;    // not used
  int32_t node_id;
  bool is_master;
  bool online;
};

/// Decides whether this node of a cluster does the work of a job: every node runs the same definition, asks
/// the backup server to choose one of them, and waits until the server has announced its choice.
///
/// Threads:   job threads ask while service threads deliver announcements. One lock guards the announcements
///            and is also held while the server is asked, so that one agent asks once at a time. The
///            announcement of a choice can therefore be stored only after the server has answered the request.
/// Ownership: one object a process, made when the module is loaded and destroyed when it is unloaded.
/// Units:     seconds; waiting goes through kestrel::clock().
/// Errors:    false after at most one line; results as each operation says. No exception leaves.
/// Crash:     announcements live in memory; a run that is repeated asks again.
class Oscar_Cluster_Node_Manager
{
public:
  /// One announced choice for one job.
  struct Selection {
    std::string instance;
    int32_t node_id; // -1: no node was chosen
    std::string host_uuid;
    std::string state; // "success", "failed"; empty: nothing was announced yet
    time_t start_time; // the announcement's time
  };

  static Oscar_Cluster_Node_Manager* instance();
  static void close_instance();

  /// True when the job shall run here. When it is false `state` tells why: "failed" no node was chosen,
  /// "success" another one was, empty when nothing was heard. Asks the backup server when `select_master` or
  /// `backup` is set, and then blocks for up to 31 seconds.
  [[nodiscard]] bool is_selected_node(const char* instance, const std::string& definition_uuid,
                                      const std::string& uid, std::string& state, bool select_master,
                                      bool backup);

  /// Stores an announcement in the place of an earlier one for the same job.
  [[nodiscard]] bool set_selection(const std::string& definition_uuid, const std::string& instance,
                                   int node_id, const std::string& host_uuid, const std::string& state,
                                   const time_t& time);
  /// Takes the announcement out. False, with `selection` untouched, when there is none or its state is empty.
  [[nodiscard]] bool get_selection(const std::string& definition_uuid, Selection& selection);

  /// Appends "instance" (always empty), "node_id", "is_master" and "online" of this node to `result`.
  [[nodiscard]] bool check_state(const std::string& instance, const std::string& uid,
                                 const std::string& virtual_address, json_spirit::Object& result);

private:
  bool request_choice(const std::string& definition_uuid, const std::string& uid,
                      const std::string& instance_uuid, bool select_master, time_t& selection_time);
  Selection await_choice(const std::string& definition_uuid, time_t selection_time);

  typedef std::map<std::string, Selection> Job_Map; // by the job's definition
  Job_Map jobs_;
  ACE_Thread_Mutex mutex_;
};

/// Destroys the manager; runs when the module is unloaded.
void Oscar_Cluster_Node_Manager_fini();

/// Asks the backup server to choose a node; `selection_time` is written on success only.
[[nodiscard]] bool request_selection(const std::string& definition_uuid, const std::string& uid,
                                     const std::string& instance_uuid, bool select_master,
                                     time_t& selection_time);

/// Finds this host among the nodes of the instance's cluster, which are asked at `virtual_address`, or where
/// the instance's configuration says when it is empty. `node` is written on success only.
[[nodiscard]] bool get_cluster_node_info(std::shared_ptr<Instance> inst, const std::string& uid,
                                         const std::string& virtual_address, Cluster_Node& node);
} // namespace oscar

/// The waiting times as a range for loops.
typedef std::pair<Exponential_Backoff_Iterator, Exponential_Backoff_Iterator> Exponential_Backoff_Range;
Exponential_Backoff_Range exponential_backoff(unsigned slot_time, unsigned max_retries, unsigned capped,
                                              bool jitter);
Exponential_Backoff_Range exponential_backoff(Exponential_Backoff_Iterator i);
