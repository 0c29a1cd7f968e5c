#include "rpc/http_server.h"

#include "base/clock.h"
#include "rpc/http_connection.h"
#include "rpc/tls.h"

#include <ace/Log_Msg.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <list>
#include <optional>

namespace kestrel
{
namespace
{
namespace asio = boost::asio;
using asio::ip::tcp;
typedef boost::system::error_code Error;

/// How often a thread that reads and writes reports, and when it counts as stuck: it waits for nothing else.
const std::chrono::seconds TURN(2);
constexpr int64_t STUCK_MSEC = 60 * 1000;
/// How long the threads may take to end once every connection was cut. Longer than a WebSocket waits for the
/// other side's good-bye.
const int END_MSEC = 20000;
/// A remark about refused connections once in so long.
const int64_t REMARK_MSEC = 60000;

/// IPv4 clients of an IPv6 socket count as what they are.
std::string address_text(const asio::ip::address& address)
{
  if (address.is_v6() && address.to_v6().is_v4_mapped())
    return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
  return address.to_string();
}
} // namespace

struct HTTP_Server::State : std::enable_shared_from_this<HTTP_Server::State> {
  class Place;

  State() : strand(asio::make_strand(io)), acceptor(strand), pause(strand) {}

  bool listen(const HTTP_Server_Options& options, std::string& error);
  void accept();
  void accepted(const Error& error, tcp::socket socket);
  std::shared_ptr<HTTP_Place> take_place(const std::string& address);
  void leave(const std::string& address, bool was_handed_over);
  void remember(const std::shared_ptr<HTTP_Connection>& connection);
  std::vector<std::shared_ptr<HTTP_Connection>> connections();
  void run();
  void end_threads();

  asio::io_context io;
  asio::strand<asio::io_context::executor_type> strand;
  tcp::acceptor acceptor;
  asio::steady_timer pause;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work;
  std::shared_ptr<HTTP_Shared> shared = std::make_shared<HTTP_Shared>();
  std::shared_ptr<TLS_Server_Context> tls;
  unsigned short port = 0;
  std::vector<std::thread> threads;

  std::mutex mutex;
  std::condition_variable changed;
  unsigned running_threads = 0;
  unsigned open = 0;
  unsigned handed_over = 0;
  std::map<std::string, unsigned> open_by_address;
  std::list<std::weak_ptr<HTTP_Connection>> known;
  size_t sweep_at = 64;
  uint64_t count_accepted = 0;
  uint64_t count_refused = 0;
  int64_t remarked_at = -REMARK_MSEC;
};

class HTTP_Server::State::Place final : public HTTP_Place
{
public:
  Place(std::shared_ptr<State> state, const std::string& address)
      : state_(std::move(state)), address_(address)
  {
  }
  ~Place() override { state_->leave(address_, handed_over_); }
  void handed_over() override
  {
    std::lock_guard<std::mutex> guard(state_->mutex);
    handed_over_ = true;
    ++state_->handed_over;
    state_->changed.notify_all();
  }

private:
  const std::shared_ptr<State> state_;
  const std::string address_;
  bool handed_over_ = false;
};

HTTP_Server::HTTP_Server() : state_(std::make_shared<State>()) {}

HTTP_Server::~HTTP_Server()
{
  stop(0);
}

void HTTP_Server::add_upgrade(const std::string& path, Upgrade_Gate gate, Upgrade_Handler handler)
{
  state_->shared->upgrades[path] = {std::move(gate), std::move(handler)};
}

void HTTP_Server::set_body_gate(Handler gate)
{
  state_->shared->body_gate = std::move(gate);
}

bool HTTP_Server::State::listen(const HTTP_Server_Options& options, std::string& error)
{
  Error failed;
  const asio::ip::address address = asio::ip::make_address(options.address, failed);
  if (failed) {
    error = "'" + options.address + "' is no numeric address to listen on";
    return false;
  }
  if (options.certificate_file.empty() && !address.is_loopback()) {
    error = "Without TLS the server listens on loopback addresses only, and " + options.address + " is none";
    return false;
  }
  const tcp::endpoint endpoint(address, options.port);
  acceptor.open(endpoint.protocol(), failed);
  if (!failed)
    acceptor.set_option(tcp::acceptor::reuse_address(true), failed);
  if (!failed)
    acceptor.bind(endpoint, failed);
  if (!failed)
    acceptor.listen(asio::socket_base::max_listen_connections, failed);
  if (failed) {
    error = "Cannot listen on " + options.address + " port " + std::to_string(options.port) + ": " +
            failed.message();
    return false;
  }
  port = acceptor.local_endpoint().port();
  return true;
}

bool HTTP_Server::start(const HTTP_Server_Options& options, Handler handler, std::string& error)
{
  if (!options.certificate_file.empty()) {
    TLS_Server_Options tls;
    tls.certificate_file = options.certificate_file;
    tls.key_file = options.key_file;
    state_->tls = TLS_Server_Context::create(tls, error);
    if (!state_->tls)
      return false;
  }
  if (!state_->listen(options, error))
    return false;
  state_->shared->options = options;
  state_->shared->handler = std::move(handler);
  state_->shared->workers.start(options.workers, options.limits.queued_requests, options.heartbeats);
  state_->work.emplace(state_->io.get_executor());
  asio::post(state_->strand, [state = state_] { state->accept(); });
  state_->running_threads = std::max(1u, options.io_threads);
  for (unsigned i = state_->running_threads; i > 0; --i)
    state_->threads.emplace_back([state = state_.get()] { state->run(); });
  return true;
}

void HTTP_Server::State::run()
{
  Heartbeat heartbeat(shared->options.heartbeats, "network", STUCK_MSEC);
  while (!io.stopped()) {
    try {
      io.run_for(TURN);
      heartbeat.beat();
    } catch (const std::exception& exception) {
      // One connection's memory, say: the others go on.
      ACE_ERROR((LM_ERROR, "(%P|%t) HTTP_Server: %s\n", exception.what()));
    }
  }
  std::lock_guard<std::mutex> guard(mutex);
  --running_threads;
  changed.notify_all();
}

void HTTP_Server::State::accept()
{
  if (shared->stopping)
    return;
  acceptor.async_accept(asio::make_strand(io),
                        [self = shared_from_this()](const Error& error, tcp::socket socket) {
                          self->accepted(error, std::move(socket));
                        });
}

void HTTP_Server::State::accepted(const Error& error, tcp::socket socket)
{
  if (error == asio::error::operation_aborted || shared->stopping)
    return;
  if (error) {
    // No descriptors, most likely. Trying again at once would only burn the processor.
    ACE_ERROR((LM_WARNING, "(%P|%t) HTTP_Server: cannot accept a connection: %s\n", error.message().c_str()));
    pause.expires_after(std::chrono::milliseconds(200));
    pause.async_wait([self = shared_from_this()](const Error&) { self->accept(); });
    return;
  }
  Error failed;
  const tcp::endpoint peer = socket.remote_endpoint(failed);
  const std::string address = failed ? std::string() : address_text(peer.address());
  const std::shared_ptr<HTTP_Place> place = failed ? nullptr : take_place(address);
  if (place) {
    socket.set_option(tcp::no_delay(true), failed);
    const auto connection = make_http_connection(shared, std::move(socket), tls ? tls->context() : nullptr,
                                                 address, peer.port(), place);
    remember(connection);
    connection->start();
  }
  accept();
}

std::shared_ptr<HTTP_Place> HTTP_Server::State::take_place(const std::string& address)
{
  std::lock_guard<std::mutex> guard(mutex);
  const HTTP_Limits& limits = shared->options.limits;
  unsigned& of_address = open_by_address[address];
  if (open >= limits.connections || of_address >= limits.connections_per_address) {
    ++count_refused;
    if (clock().monotonic_msec() - remarked_at >= REMARK_MSEC) {
      remarked_at = clock().monotonic_msec();
      ACE_DEBUG(
          (LM_NOTICE,
           "(%P|%t) HTTP_Server: a connection of %s is over the limit: it has %u, and there are %u in all\n",
           address.c_str(), of_address, open));
    }
    if (of_address == 0)
      open_by_address.erase(address);
    return nullptr;
  }
  ++open;
  ++of_address;
  ++count_accepted;
  return std::make_shared<Place>(shared_from_this(), address);
}

void HTTP_Server::State::leave(const std::string& address, bool was_handed_over)
{
  std::lock_guard<std::mutex> guard(mutex);
  --open;
  if (was_handed_over)
    --handed_over;
  if (--open_by_address[address] == 0)
    open_by_address.erase(address);
  changed.notify_all();
}

void HTTP_Server::State::remember(const std::shared_ptr<HTTP_Connection>& connection)
{
  std::lock_guard<std::mutex> guard(mutex);
  known.push_back(connection);
  if (known.size() < sweep_at)
    return;
  known.remove_if([](const std::weak_ptr<HTTP_Connection>& one) { return one.expired(); });
  sweep_at = std::max<size_t>(64, 2 * known.size());
}

std::vector<std::shared_ptr<HTTP_Connection>> HTTP_Server::State::connections()
{
  std::lock_guard<std::mutex> guard(mutex);
  std::vector<std::shared_ptr<HTTP_Connection>> found;
  for (const std::weak_ptr<HTTP_Connection>& one : known)
    if (std::shared_ptr<HTTP_Connection> connection = one.lock())
      found.push_back(std::move(connection));
  return found;
}

void HTTP_Server::stop(int grace_msec, const std::function<void()>& before_cut)
{
  if (state_->threads.empty())
    return;
  state_->shared->stopping = true;
  asio::post(state_->strand, [state = state_] {
    Error ignored;
    state->acceptor.close(ignored);
    state->pause.cancel();
  });
  for (const auto& connection : state_->connections())
    connection->close_when_idle();
  {
    std::unique_lock<std::mutex> lock(state_->mutex);
    state_->changed.wait_for(lock, std::chrono::milliseconds(grace_msec),
                             [&] { return state_->open == state_->handed_over; });
  }
  if (before_cut)
    before_cut();
  state_->shared->cut = true;
  for (const auto& connection : state_->connections())
    connection->abort();
  state_->shared->workers.stop();
  state_->end_threads();
}

void HTTP_Server::State::end_threads()
{
  work.reset();
  {
    std::unique_lock<std::mutex> lock(mutex);
    if (!changed.wait_for(lock, std::chrono::milliseconds(END_MSEC),
                          [this] { return running_threads == 0; })) {
      ACE_ERROR(
          (LM_WARNING, "(%P|%t) HTTP_Server: %u connections that were handed over are still open\n", open));
      io.stop();
    }
  }
  for (std::thread& thread : threads)
    thread.join();
  threads.clear();
}

unsigned short HTTP_Server::port() const
{
  return state_->port;
}

bool HTTP_Server::reload_certificate(std::string& error)
{
  return !state_->tls || state_->tls->reload(error);
}

HTTP_Server::Counts HTTP_Server::counts() const
{
  Counts counts;
  counts.requests = state_->shared->requests;
  std::lock_guard<std::mutex> guard(state_->mutex);
  counts.accepted = state_->count_accepted;
  counts.refused = state_->count_refused;
  counts.open = state_->open;
  return counts;
}
} // namespace kestrel
