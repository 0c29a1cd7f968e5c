#include "rpc/json_rpc_dispatcher.h"

#include "base/ignore_result.h"
#include "base/queue_watch.h"
#include "rpc/json_rpc_reply.h"
#include "rpc/json_rpc_request_parts.h"
#include "rpc/json_rpc_task_queue.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kestrel
{
namespace
{
typedef ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> Strong_Channel;
typedef ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> Weak_Channel;
typedef JSON_RPC_Binding Binding;
typedef JSON_RPC_Task Task;

/// Longer than the longest call, which its caller waits for: 5 minutes.
constexpr int64_t STUCK_MSEC = 15 * 60 * 1000;

struct Open_Request {
  const Message_Channel* from;
  std::shared_ptr<JSON_RPC_Answers> answers;
  Strong_Channel channel;
};

/// Set on the service threads of a dispatcher.
thread_local const void* thread_of = nullptr;
} // namespace

struct JSON_RPC_Dispatcher::Core : std::enable_shared_from_this<JSON_RPC_Dispatcher::Core> {
  bool bind(const std::string& method, Binding binding);
  bool start(const Options& wanted);
  bool wait_for_threads();

  void take(const std::shared_ptr<Message_Channel>& from, json_spirit::Value& message,
            const std::shared_ptr<JSON_RPC_Answers>& answers, std::size_t part);
  const char* enqueue(Task& task, const std::shared_ptr<JSON_RPC_Answers>& answers, std::size_t part);
  bool full();
  std::vector<Task> take_queued(const std::function<bool(const Task&)>& wanted);

  void serve();
  bool next(Task& task, std::unique_lock<std::mutex>& lock);
  void run(const Task& task);
  void run_function(const Task& task, const JSON_RPC_Request& request);
  void answer_error(const Task& task, int code, const std::string& message, const json_spirit::Value& data);
  void answered(uint64_t key);

  Options options; ///< this and the next: constant once started
  std::map<std::string, Binding> bindings;
  mutable std::mutex mutex; ///< for all below
  std::condition_variable work;
  std::condition_variable ended;
  std::vector<std::thread> threads;
  unsigned live_threads = 0;
  bool started = false;
  bool stopping = false;
  bool was_full = false;
  JSON_RPC_Task_Queue queue;
  Queue_Watch watch;
  std::unordered_map<uint64_t, Open_Request> open;
  uint64_t last_key = 0;
  Statistics statistics;
};

void JSON_RPC_Dispatcher::Core::serve()
{
  thread_of = this;
  for (;;) {
    Task task; // freed without the lock: it may be the last owner of a connection
    {
      std::unique_lock<std::mutex> lock(mutex);
      if (!next(task, lock))
        break;
    }
    run(task);
    const std::lock_guard<std::mutex> guard(mutex);
    --statistics.running;
    if (queue.has_run(task))
      work.notify_one();
    watch.look(!queue.empty());
  }
  const std::lock_guard<std::mutex> guard(mutex);
  --live_threads;
  ended.notify_all();
}

/// Waits for something to do; false once the dispatcher stops.
bool JSON_RPC_Dispatcher::Core::next(Task& task, std::unique_lock<std::mutex>& lock)
{
  for (;;) {
    work.wait(lock, [this] { return stopping || !queue.empty(); });
    if (stopping)
      return false;
    if (!queue.take(task)) {
      watch.look(!queue.empty());
      continue;
    }
    watch.taken(!queue.empty());
    ++statistics.running;
    return true;
  }
}

void JSON_RPC_Dispatcher::Core::run(const Task& task)
{
  const JSON_RPC_Request& request = *task.request->request();
  try {
    if (!task.binding->handler)
      run_function(task, request);
    else if (task.binding->handler->handle_object(Weak_Channel(task.channel), task.request) == -1)
      answer_error(task, JSON_RPC_INTERNAL_ERROR, "Internal error", json_spirit::Value());
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) JSON_RPC_Dispatcher: the method %C failed: %C\n", request.method().c_str(),
               failure.what()));
    answer_error(task, JSON_RPC_INTERNAL_ERROR, "Internal error", json_spirit::Value());
  } catch (...) {
    ACE_ERROR((LM_ERROR, "(%P|%t) JSON_RPC_Dispatcher: the method %C failed for an unknown reason\n",
               request.method().c_str()));
    answer_error(task, JSON_RPC_INTERNAL_ERROR, "Internal error", json_spirit::Value());
  }
}

void JSON_RPC_Dispatcher::Core::run_function(const Task& task, const JSON_RPC_Request& request)
{
  JSON_RPC_Error error;
  json_spirit::Value result;
  if (!task.binding->function(*task.from, request.params(), result, error)) {
    answer_error(task, error.code, error.message.empty() ? "Internal error" : error.message, error.data);
    return;
  }
  JSON_RPC_Response* response = new JSON_RPC_Response(request);
  const JSON_RPC_Object_Ptr answer(response);
  response->result() = std::move(result);
  if (task.channel->send(answer) == -1)
    answer_error(task, JSON_RPC_INTERNAL_ERROR, "Internal error", json_spirit::Value());
}

/// Without effect when the request was answered.
void JSON_RPC_Dispatcher::Core::answer_error(const Task& task, int code, const std::string& message,
                                             const json_spirit::Value& data)
{
  if (task.key)
    ignore_result(task.channel->send_error(code, task.request->request()->id(), message.c_str(), data),
                  "the requester may have gone, or has its answer");
}

/// One request of a message, from its form to the queue.
void JSON_RPC_Dispatcher::Core::take(const std::shared_ptr<Message_Channel>& from,
                                     json_spirit::Value& message,
                                     const std::shared_ptr<JSON_RPC_Answers>& answers, std::size_t part)
{
  JSON_RPC_Request_Parts parts = read_request_parts(message);
  if (!parts.valid) {
    answers->put_error(part, JSON_RPC_INVALID_REQUEST, parts.id, "Invalid Request");
    return;
  }
  const auto binding = bindings.find(parts.method);
  if (parts.notification)
    answers->skip(part);
  if (binding == bindings.end()) {
    if (!parts.notification)
      answers->put_error(part, JSON_RPC_METHOD_NOT_FOUND, parts.id, "Method not found");
    return;
  }
  Task task;
  task.from = from;
  task.binding = &binding->second;
  const json_spirit::Value id = parts.id;
  task.request = JSON_RPC_Object_Ptr(
      new JSON_RPC_Request(std::move(parts.id), std::move(parts.method), std::move(parts.params)));
  const char* refusal = enqueue(task, parts.notification ? nullptr : answers, part);
  if (refusal && !parts.notification)
    answers->put_error(part, JSON_RPC_BUSY, id, refusal);
}

/// Null, or why the task is not accepted. Without `answers` it is a notification.
const char* JSON_RPC_Dispatcher::Core::enqueue(Task& task, const std::shared_ptr<JSON_RPC_Answers>& answers,
                                               std::size_t part)
{
  const std::lock_guard<std::mutex> guard(mutex);
  ++statistics.received;
  if (stopping || !started)
    return "The service is stopping.";
  if (full()) {
    ++statistics.refused_busy;
    return "Too many requests wait already; try again later.";
  }
  if (options.channel_queue_limit && queue.size_of(task.from.get()) >= options.channel_queue_limit) {
    ++statistics.refused_busy;
    return "Too many requests of this connection wait already; try again later.";
  }
  std::function<void()> answered;
  if (answers) {
    task.key = ++last_key;
    answered = [core = weak_from_this(), key = task.key] {
      if (const std::shared_ptr<Core> self = core.lock())
        self->answered(key);
    };
  }
  task.channel =
      Strong_Channel(new JSON_RPC_Reply_Channel(answers, part, task.request->request()->id(), answered));
  if (answers)
    open.emplace(task.key, Open_Request{task.from.get(), answers, task.channel});
  queue.push(std::move(task));
  watch.look(true);
  work.notify_one();
  return nullptr;
}

/// Whether no more fits; told once each time that it begins.
bool JSON_RPC_Dispatcher::Core::full()
{
  if (open.size() >= options.open_limit)
    for (auto request = open.begin(); request != open.end();)
      request = request->second.answers->connected() ? std::next(request) : open.erase(request);
  const bool is_full = queue.size() >= options.queue_limit || open.size() >= options.open_limit;
  if (is_full && !was_full)
    ACE_ERROR((LM_WARNING,
               "(%P|%t) JSON_RPC_Dispatcher: %u requests wait and %u are not answered; refusing more\n",
               queue.size(), static_cast<unsigned>(open.size())));
  was_full = is_full;
  return is_full;
}

void JSON_RPC_Dispatcher::Core::answered(uint64_t key)
{
  Strong_Channel channel; // freed without the lock
  const std::lock_guard<std::mutex> guard(mutex);
  const auto request = open.find(key);
  if (request == open.end())
    return;
  channel = request->second.channel;
  open.erase(request);
}

/// Takes those out that wait for a thread. With the lock held.
std::vector<Task> JSON_RPC_Dispatcher::Core::take_queued(const std::function<bool(const Task&)>& wanted)
{
  return queue.remove(wanted, [this] { work.notify_one(); });
}

JSON_RPC_Dispatcher::JSON_RPC_Dispatcher() : core_(std::make_shared<Core>()) {}

JSON_RPC_Dispatcher::~JSON_RPC_Dispatcher()
{
  ignore_result(stop(), "told in the log");
}

bool JSON_RPC_Dispatcher::bind(const std::string& method, JSON_RPC_Handler* handler, JSON_RPC_Order order)
{
  return handler && core_->bind(method, Binding{handler, nullptr, order});
}

bool JSON_RPC_Dispatcher::bind(const std::string& method, Method function, JSON_RPC_Order order)
{
  if (!function)
    return false;
  const auto without_peer = [function](Message_Channel&, const json_spirit::Value& params,
                                       json_spirit::Value& result,
                                       JSON_RPC_Error& error) { return function(params, result, error); };
  return core_->bind(method, Binding{nullptr, without_peer, order});
}

bool JSON_RPC_Dispatcher::bind(const std::string& method, Peer_Method function, JSON_RPC_Order order)
{
  return function && core_->bind(method, Binding{nullptr, std::move(function), order});
}

bool JSON_RPC_Dispatcher::Core::bind(const std::string& method, Binding binding)
{
  const std::lock_guard<std::mutex> guard(mutex);
  return !method.empty() && !started && bindings.emplace(method, std::move(binding)).second;
}

bool JSON_RPC_Dispatcher::start(const Options& options)
{
  if (options.threads < 2) {
    ACE_ERROR((LM_ERROR, "(%P|%t) JSON_RPC_Dispatcher::start: at least two threads are needed, not %u\n",
               options.threads));
    return false;
  }
  return core_->start(options);
}

bool JSON_RPC_Dispatcher::Core::start(const Options& wanted)
{
  const std::lock_guard<std::mutex> guard(mutex);
  if (started || stopping) {
    ACE_ERROR((LM_ERROR, "(%P|%t) JSON_RPC_Dispatcher::start: it was started before\n"));
    return false;
  }
  options = wanted;
  started = true;
  watch.begin(options.heartbeats, "JSON-RPC calls", STUCK_MSEC);
  try {
    while (threads.size() < options.threads) {
      threads.emplace_back([self = shared_from_this()] { self->serve(); });
      ++live_threads;
    }
  } catch (const std::system_error& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) JSON_RPC_Dispatcher::start: no thread can be made: %C\n", failure.what()));
    stopping = true; // those that were made end by themselves, and stop() takes them
    return false;
  }
  return true;
}

bool JSON_RPC_Dispatcher::stop()
{
  std::vector<Task> refused;
  std::unordered_map<uint64_t, Open_Request> open;
  {
    const std::lock_guard<std::mutex> guard(core_->mutex);
    if (!core_->started)
      return true;
    core_->stopping = true;
    core_->watch.end();
    refused = core_->take_queued([](const Task&) { return true; });
    core_->work.notify_all();
  }
  for (const Task& task : refused)
    core_->answer_error(task, JSON_RPC_BUSY, "The service is stopping.", json_spirit::Value());
  const bool all_ended = core_->wait_for_threads();
  const std::lock_guard<std::mutex> guard(core_->mutex);
  open.swap(core_->open); // freed without the lock
  return all_ended;
}

/// Waits for the service threads and gives whether they ended. The first caller takes them.
bool JSON_RPC_Dispatcher::Core::wait_for_threads()
{
  const bool own = thread_of == this;
  std::vector<std::thread> taken;
  bool all_ended;
  {
    std::unique_lock<std::mutex> lock(mutex);
    taken.swap(threads);
    all_ended = ended.wait_for(lock, std::chrono::milliseconds(options.stop_timeout_msec),
                               [&] { return live_threads == (own ? 1u : 0u); });
  }
  if (!all_ended && !taken.empty())
    ACE_ERROR((LM_ERROR,
               "(%P|%t) JSON_RPC_Dispatcher::stop: a handler still runs after %d ms and is left alone\n",
               options.stop_timeout_msec));
  for (std::thread& thread : taken)
    if (all_ended && thread.get_id() != std::this_thread::get_id())
      thread.join();
    else
      thread.detach();
  return all_ended;
}

void JSON_RPC_Dispatcher::Intake::receive(const std::shared_ptr<Message_Channel>& from,
                                          const std::string& text)
{
  json_spirit::Value message;
  std::string error;
  if (read_json(text, json_network_limits(), message, error))
    receive_message(from, std::move(message));
  else
    JSON_RPC_Answers::to_request(from)->put_error(0, JSON_RPC_PARSE_ERROR, json_spirit::Value(),
                                                  "Parse error: " + error);
}

void JSON_RPC_Dispatcher::Intake::receive_message(const std::shared_ptr<Message_Channel>& from,
                                                  json_spirit::Value message)
{
  if (message.type() != json_spirit::array_type) {
    core_->take(from, message, JSON_RPC_Answers::to_request(from), 0);
    return;
  }
  json_spirit::Array& batch = message.get_array();
  const unsigned limit = core_->options.batch_limit;
  if (batch.empty() || batch.size() > limit) {
    const std::string text = batch.empty()
                                 ? "Invalid Request"
                                 : "Invalid Request: a batch holds at most " + std::to_string(limit) +
                                       " requests, not " + std::to_string(batch.size());
    JSON_RPC_Answers::to_request(from)->put_error(0, JSON_RPC_INVALID_REQUEST, json_spirit::Value(), text);
    return;
  }
  const std::shared_ptr<JSON_RPC_Answers> answers = JSON_RPC_Answers::to_batch(from, batch.size());
  for (std::size_t part = 0; part < batch.size(); ++part)
    core_->take(from, batch[part], answers, part);
}

void JSON_RPC_Dispatcher::Intake::forget(const Message_Channel* from)
{
  std::vector<Task> dropped;
  std::vector<Strong_Channel> channels; // both freed without the lock
  const std::lock_guard<std::mutex> guard(core_->mutex);
  dropped = core_->take_queued([from](const Task& task) { return task.from.get() == from && task.key; });
  core_->watch.look(!core_->queue.empty());
  for (auto request = core_->open.begin(); request != core_->open.end();) {
    if (request->second.from != from) {
      ++request;
      continue;
    }
    channels.push_back(request->second.channel);
    request = core_->open.erase(request);
  }
}

JSON_RPC_Dispatcher::Intake JSON_RPC_Dispatcher::intake() const
{
  return Intake(core_);
}

void JSON_RPC_Dispatcher::receive(const std::shared_ptr<Message_Channel>& from, const std::string& text)
{
  intake().receive(from, text);
}

void JSON_RPC_Dispatcher::receive_message(const std::shared_ptr<Message_Channel>& from,
                                          json_spirit::Value message)
{
  intake().receive_message(from, std::move(message));
}

void JSON_RPC_Dispatcher::forget(const Message_Channel* from)
{
  intake().forget(from);
}

JSON_RPC_Dispatcher::Statistics JSON_RPC_Dispatcher::statistics() const
{
  const std::lock_guard<std::mutex> guard(core_->mutex);
  Statistics now = core_->statistics;
  now.queued = core_->queue.size();
  now.open = static_cast<unsigned>(core_->open.size());
  return now;
}
} // namespace kestrel
