#include "rpc/network_threads.h"

#include <ace/Log_Msg.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <exception>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrel
{
struct Network_Threads::State {
  std::unique_ptr<boost::asio::io_context> context = std::make_unique<boost::asio::io_context>();
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> busy{context->get_executor()};
  std::vector<std::thread> threads;
};

namespace
{
void run(boost::asio::io_context& context)
{
  for (;;)
    try {
      context.run();
      return;
    } catch (const std::exception& failure) {
      // What threw has lost its turn; the others go on.
      ACE_ERROR((LM_ERROR, "(%P|%t) Network_Threads: a connection failed: %C\n", failure.what()));
    }
}
} // namespace

Network_Threads::Network_Threads() : state_(std::make_unique<State>()) {}

Network_Threads::~Network_Threads()
{
  stop();
}

bool Network_Threads::start(unsigned threads)
{
  try {
    while (state_->threads.size() < threads)
      state_->threads.emplace_back([context = state_->context.get()] { run(*context); });
    return true;
  } catch (const std::system_error& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) Network_Threads::start: no thread can be made: %C\n", failure.what()));
    return false;
  }
}

void Network_Threads::stop()
{
  if (!state_->context)
    return;
  state_->context->stop();
  for (std::thread& thread : state_->threads)
    thread.join();
  state_->threads.clear();
  state_->busy.reset();
  // Frees what waits on connections, and with it the connections.
  state_->context.reset();
}

boost::asio::io_context& Network_Threads::context()
{
  return *state_->context;
}
} // namespace kestrel
