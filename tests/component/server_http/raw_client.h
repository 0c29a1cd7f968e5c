#pragma once

#include <map>
#include <memory>
#include <string>

namespace kestrel_test
{
struct Raw_Reply {
  int status = 0;                             ///< 0: the connection ended without one
  std::map<std::string, std::string> headers; ///< names in lower case
  std::string body;
};

/// A client that sends what it is told, byte for byte, over TCP or TLS to 127.0.0.1.
/// Threads: one. Waits for at most half a minute, which no test should come near.
class Raw_Client
{
public:
  struct TLS {
    std::string ca_pem; ///< empty: the certificate is not checked
    int highest_version = 0;
    std::string name = "localhost";
  };

  explicit Raw_Client(unsigned short port, const char* from = "127.0.0.1");
  Raw_Client(unsigned short port, const TLS& tls);
  ~Raw_Client();
  Raw_Client(const Raw_Client&) = delete;
  Raw_Client& operator=(const Raw_Client&) = delete;

  bool connected() const;
  bool send(const std::string& bytes);
  /// One reply; bytes of the next one stay. One to HEAD is without the body that it names the length of.
  Raw_Reply receive(bool without_body = false);
  Raw_Reply ask(const std::string& bytes)
  {
    send(bytes);
    return receive();
  }
  /// No more bytes from this side.
  void end_sending();
  /// True when the server closes without a further byte.
  bool sees_end();
  /// Waits for any bytes and forgets them; false at the end.
  bool skip_bytes();
  /// Closes at once; with `reset` unsent data is dropped and the server sees a reset.
  void close(bool reset = false);

private:
  struct State;
  const std::unique_ptr<State> state_;
};

/// A request with Host and, when there is a body, its length and JSON type. Each of `headers` ends with CRLF.
std::string http_request(const std::string& method, const std::string& target,
                         const std::string& headers = "", const std::string& body = "");
} // namespace kestrel_test
