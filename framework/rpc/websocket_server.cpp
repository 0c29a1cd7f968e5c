#include "rpc/websocket_server.h"

#include "rpc/websocket_session.h"

#include <boost/asio/dispatch.hpp>

#include <utility>

namespace kestrel
{
Upgraded_Connection::Upgraded_Connection(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
Upgraded_Connection::~Upgraded_Connection() = default;
Upgraded_Connection::Upgraded_Connection(Upgraded_Connection&& other) noexcept = default;
Upgraded_Connection& Upgraded_Connection::operator=(Upgraded_Connection&& other) noexcept = default;

std::string Upgraded_Connection::target() const
{
  return std::string(parts_->request.target());
}

std::string Upgraded_Connection::header(const std::string& name) const
{
  return std::string(parts_->request[name]);
}

std::string Upgraded_Connection::address() const
{
  return parts_->address;
}

void websocket_accept(Upgraded_Connection connection, const WebSocket_Limits& limits, WebSocket_Accepted done)
{
  Upgraded_Connection::Parts& parts = *connection.parts();
  const auto executor = parts.stream->get_executor();
  const auto state = std::make_shared<WebSocket_State>(limits, parts.address);
  const auto session = WebSocket_Session::create(std::move(*parts.stream), state, parts.place);
  const auto accepted = [session, done = std::move(done)](boost::beast::error_code error) {
    const std::shared_ptr<WebSocket_State>& shared = session->state();
    if (error) {
      done(nullptr, "The WebSocket of " + shared->address + " did not come about: " + error.message() + ".");
      return;
    }
    session->run();
    done(websocket_channel(shared), std::string());
  };
  boost::asio::dispatch(executor, [session, accepted, request = std::move(parts.request)]() mutable {
    session->accept(std::move(request), accepted);
  });
}
} // namespace kestrel
