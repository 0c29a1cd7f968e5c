#pragma once

#include <memory>
#include <string>

/// How this host reaches its backup server.
///
/// A host without one keeps catalog and storage itself: its host name is empty.
/// Threads: instance() and set() from any thread; what was handed out is a copy.
class WebSocket_Options
{
public:
  static WebSocket_Options instance();
  /// Set by the process that hosts the jobs, before it runs one.
  static void set(const WebSocket_Options& options);

  std::string host;
  unsigned short port = 0;
  bool ssl = false;
  /// Tells the server which session the requests belong to. A secret: never to be logged.
  std::string cookie;
  /// The CA of the server's certificate, as PEM text. Empty: none is registered, and nothing is checked here.
  std::string ca_pem;
};

/// An open connection to the backup server, or the stand-in for one on a host that has no server.
class HTTP_Session
{
public:
  virtual ~HTTP_Session();
  /// False: this host is its own server and nothing is sent.
  virtual bool remote() const = 0;
};

/// Makes sessions.
/// Threads: any.
/// Units:   seconds.
/// Errors:  a null pointer when the server does not accept a connection within CONNECT_SECONDS, or the TLS
///          handshake does not succeed within as many again; errno says why: EPROTO when the handshake
///          failed, EACCES when the certificate is refused, with the reason in the log at LM_INFO.
class HTTP_Session_Factory
{
public:
  static constexpr int CONNECT_SECONDS = 10;

  /// An empty host always succeeds. The addresses of a name are tried in turn, within CONNECT_SECONDS
  /// altogether. With ssl and a registered CA (WebSocket_Options) the server must prove that it is `host`;
  /// without a CA the handshake is left to the first request.
  static std::unique_ptr<HTTP_Session> create(const std::string& host, unsigned short port, bool ssl);
};

/// Keeps one session open for as long as its owner lives.
class JSON_HTTP_Session
{
public:
  void session(std::unique_ptr<HTTP_Session> session) { session_ = std::move(session); }
  const HTTP_Session* session() const { return session_.get(); }

private:
  std::unique_ptr<HTTP_Session> session_;
};

/// A request that carries the session's cookie.
class CGI_Request
{
public:
  void cookie(const std::string& value) { cookie_ = value; }
  const std::string& cookie() const { return cookie_; }

private:
  std::string cookie_;
};
