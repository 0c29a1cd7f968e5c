#include "rpc/http_session.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/Time_Value.h>

#include <mutex>

namespace
{
std::mutex options_mutex;

WebSocket_Options& options_in_force()
{
  static WebSocket_Options options;
  return options;
}

class Local_Session : public HTTP_Session
{
public:
  bool remote() const override { return false; }
};

class Socket_Session : public HTTP_Session
{
public:
  ~Socket_Session() override { stream_.close(); }
  bool remote() const override { return true; }
  bool connect(const std::string& host, unsigned short port)
  {
    const ACE_INET_Addr address(port, host.c_str());
    const ACE_Time_Value limit(HTTP_Session_Factory::CONNECT_SECONDS);
    return ACE_SOCK_Connector().connect(stream_, address, &limit) == 0;
  }

private:
  ACE_SOCK_Stream stream_;
};
} // namespace

WebSocket_Options WebSocket_Options::instance()
{
  const std::lock_guard<std::mutex> guard(options_mutex);
  return options_in_force();
}

void WebSocket_Options::set(const WebSocket_Options& options)
{
  const std::lock_guard<std::mutex> guard(options_mutex);
  options_in_force() = options;
}

HTTP_Session::~HTTP_Session() = default;

std::unique_ptr<HTTP_Session> HTTP_Session_Factory::create(const std::string& host, unsigned short port, bool)
{
  if (host.empty())
    return std::make_unique<Local_Session>();
  std::unique_ptr<Socket_Session> session = std::make_unique<Socket_Session>();
  if (!session->connect(host, port))
    return nullptr;
  return session;
}
