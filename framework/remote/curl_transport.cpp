#include "remote/curl_transport.h"

#include "base/secure_allocator.h"
#include "storage/host_manager.h"

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <sys/socket.h>

namespace kestrel
{
namespace
{
const size_t MOST_IDLE_HANDLES = 4;
const int ACCESS_KEY_HEAD = 49;
// The server closes a connection that was idle for a minute; a younger one is still good.
const long MOST_IDLE_SECONDS = 45;

struct Handle_Closer {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
typedef std::unique_ptr<CURL, Handle_Closer> Handle;

/// The lines may hold the access key or the token, so they are wiped.
class Header_List
{
public:
  Header_List() = default;
  ~Header_List()
  {
    for (curl_slist* line = list_; line; line = line->next)
      ::explicit_bzero(line->data, std::strlen(line->data));
    curl_slist_free_all(list_);
  }
  Header_List(const Header_List&) = delete;
  Header_List& operator=(const Header_List&) = delete;

  void add(const std::string& line)
  {
    if (curl_slist* longer = curl_slist_append(list_, line.c_str()))
      list_ = longer;
    else
      complete_ = false;
  }
  curl_slist* get() const { return list_; }
  bool complete() const { return complete_; }

private:
  curl_slist* list_ = nullptr;
  bool complete_ = true;
};

bool has_control_character(const std::string& text)
{
  return std::any_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) <= 0x20; });
}

/// What the callbacks of one attempt work on.
struct Attempt {
  const REST_Call& call;
  REST_Answer& answer;
  uint64_t sent = 0;
  bool too_long = false;
};

size_t take_bytes(char* data, size_t size, size_t count, void* context)
{
  Attempt& attempt = *static_cast<Attempt*>(context);
  const size_t bytes = size * count;
  if (attempt.answer.body.size() + bytes > attempt.call.most_answer_bytes) {
    attempt.too_long = true;
    return 0;
  }
  attempt.answer.body.append(data, bytes);
  return bytes;
}

size_t give_bytes(char* target, size_t size, size_t count, void* context)
{
  Attempt& attempt = *static_cast<Attempt*>(context);
  const size_t bytes = static_cast<size_t>(
      std::min<uint64_t>(static_cast<uint64_t>(size) * count, attempt.call.body_bytes - attempt.sent));
  if (bytes > 0)
    std::memcpy(target, static_cast<const char*>(attempt.call.body) + attempt.sent, bytes);
  attempt.sent += bytes;
  return bytes;
}

int check_stopped(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t)
{
  const Attempt& attempt = *static_cast<Attempt*>(context);
  return attempt.call.stopped && *attempt.call.stopped ? 1 : 0;
}

/// Children of this process have no use for the connection.
curl_socket_t open_socket(void*, curlsocktype, curl_sockaddr* address)
{
  return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

bool is_certificate_failure(CURLcode code)
{
  return code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE ||
         code == CURLE_SSL_ISSUER_ERROR || code == CURLE_SSL_INVALIDCERTSTATUS;
}

/// What is wrong with a certificate, and what to do. names_authority: the caller said whom to trust.
std::string trust_problem(CURL* handle, CURLcode code, const std::string& why, bool names_authority)
{
  long result = X509_V_OK;
  curl_easy_getinfo(handle, CURLINFO_SSL_VERIFYRESULT, &result);
  if (code == CURLE_SSL_CACERT_BADFILE) {
    if (names_authority)
      return why + "; check the file of the authority";
    // A host without the package of the well-known authorities (ca-certificates) knows none at all.
    result = X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY;
  }
  switch (result) {
  // The library compares the name first, and has no result of the signature then.
  case X509_V_OK:
  case X509_V_ERR_UNSPECIFIED:
    return "its certificate is not for the name or address in this URL (" + why +
           "); use one that it holds, or a certificate for this one";
  case X509_V_ERR_CERT_HAS_EXPIRED:
    return "its certificate has expired; renew it on the server";
  case X509_V_ERR_CERT_NOT_YET_VALID:
    return "its certificate is not valid yet; compare the clocks of both hosts";
  case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
  case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
  case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
  case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
  case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
  case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    return "its certificate is not signed by an authority that is known here; check that this is the right "
           "server, then "
           "give its CA certificate: --ca FILE at the sign-in, ca_file in agent.toml";
  default:
    return why + "; check its certificate and the authority that this host was given";
  }
}

/// Failures that end an attempt before a byte of the request was sent.
bool is_before_request(CURLcode code)
{
  return code == CURLE_COULDNT_RESOLVE_HOST || code == CURLE_COULDNT_CONNECT ||
         code == CURLE_SSL_CONNECT_ERROR || is_certificate_failure(code);
}

class Curl_Transport : public REST_Transport
{
public:
  explicit Curl_Transport(const REST_Client_Options& options) : options_(options)
  {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    std::string host;
    unsigned short port = 0;
    if (has_control_character(options.access_key) || has_control_character(options.bearer))
      url_problem_ = "the access key or token for the backup server is damaged; enroll or sign in again";
    else if (parse_server_url(options.url, host, port, url_problem_))
      base_ = "https://" + (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" +
              std::to_string(port);
  }

  ~Curl_Transport() override
  {
    wipe(options_.access_key);
    wipe(options_.bearer);
  }

  bool perform(const REST_Call& call, REST_Answer& answer, REST_Problem& problem) override
  {
    Handle handle = take_handle();
    Header_List headers;
    fill(headers, call);
    if (!handle || !headers.complete() || base_.empty()) {
      problem.kind = REST_Problem::unusable;
      problem.text = base_.empty() ? url_problem_ : "not enough memory for a request to the backup server";
      return false;
    }
    Attempt attempt{call, answer};
    char reason[CURL_ERROR_SIZE] = "";
    set_connection(handle.get(), reason);
    set_request(handle.get(), call, headers, attempt);
    const CURLcode code = curl_easy_perform(handle.get());
    if (code == CURLE_OK)
      read_answer(handle.get(), answer);
    else
      explain(handle.get(), code, reason, attempt, problem);
    curl_easy_reset(handle.get());
    if (code == CURLE_OK)
      give_back(std::move(handle));
    return code == CURLE_OK;
  }

private:
  Handle take_handle()
  {
    {
      std::lock_guard<std::mutex> guard(lock_);
      if (!idle_.empty()) {
        Handle handle = std::move(idle_.back());
        idle_.pop_back();
        return handle;
      }
    }
    return Handle(curl_easy_init());
  }

  // Each handle keeps its own open connection.
  void give_back(Handle handle)
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (idle_.size() < MOST_IDLE_HANDLES)
      idle_.push_back(std::move(handle));
  }

  void fill(Header_List& headers, const REST_Call& call) const
  {
    headers.add("Accept: application/json, application/octet-stream");
    // No waiting for the server's leave to send a body.
    headers.add("Expect:");
    if (call.has_body)
      headers.add(std::string("Content-Type: ") + call.content_type);
    for (const auto& [name, value] : call.headers)
      headers.add(name + ": " + value);
    std::string secret;
    const Wipe_Guard<std::string> wipe_secret(secret);
    if (!options_.access_key.empty())
      secret = std::string(http_head_string(ACCESS_KEY_HEAD, 0)) + ": " + options_.access_key;
    else if (!options_.bearer.empty())
      secret = "Authorization: Bearer " + options_.bearer;
    if (!secret.empty())
      headers.add(secret);
  }

  void set_connection(CURL* handle, char* reason) const
  {
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, reason);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(handle, CURLOPT_OPENSOCKETFUNCTION, open_socket);
    curl_easy_setopt(handle, CURLOPT_PROXY, "");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(handle, CURLOPT_MAXCONNECTS, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXAGE_CONN, MOST_IDLE_SECONDS);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, 256L * 1024);
    curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, 256L * 1024);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, static_cast<long>(options_.connect_seconds));
    if (options_.ca_pem.empty() && options_.ca_file.empty())
      return;
    curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
    if (!options_.ca_pem.empty()) {
      curl_blob pem = {const_cast<char*>(options_.ca_pem.data()), options_.ca_pem.size(), CURL_BLOB_COPY};
      curl_easy_setopt(handle, CURLOPT_CAINFO, nullptr);
      curl_easy_setopt(handle, CURLOPT_CAINFO_BLOB, &pem);
    } else
      curl_easy_setopt(handle, CURLOPT_CAINFO, options_.ca_file.c_str());
  }

  void set_request(CURL* handle, const REST_Call& call, const Header_List& headers, Attempt& attempt) const
  {
    curl_easy_setopt(handle, CURLOPT_URL, (base_ + call.path).c_str());
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, static_cast<long>(call.seconds));
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, take_bytes);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &attempt);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, check_stopped);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &attempt);
    const bool posts = std::strcmp(call.method, "POST") == 0 || std::strcmp(call.method, "PUT") == 0;
    if (call.has_body || posts) {
      // Without a way to rewind the body the library cannot repeat by itself a request that it had sent on a
      // connection which then turned out to be dead: whether it may be repeated is the caller's to say.
      curl_easy_setopt(handle, CURLOPT_POST, 1L);
      curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(call.body_bytes));
      curl_easy_setopt(handle, CURLOPT_READFUNCTION, give_bytes);
      curl_easy_setopt(handle, CURLOPT_READDATA, &attempt);
    }
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, call.method);
  }

  static void read_answer(CURL* handle, REST_Answer& answer)
  {
    long status = 0;
    const char* type = nullptr;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(handle, CURLINFO_CONTENT_TYPE, &type);
    answer.status = static_cast<int>(status);
    answer.content_type = type ? type : "";
  }

  void explain(CURL* handle, CURLcode code, const char* reason, const Attempt& attempt,
               REST_Problem& problem) const
  {
    double ready_after = 0;
    curl_easy_getinfo(handle, CURLINFO_PRETRANSFER_TIME, &ready_after);
    const std::string why = *reason ? reason : curl_easy_strerror(code);
    problem.kind =
        ready_after == 0 || is_before_request(code) ? REST_Problem::unreachable : REST_Problem::lost;
    if (attempt.call.stopped && *attempt.call.stopped) {
      problem.kind = REST_Problem::stopped;
      problem.text = "the request to the backup server " + base_ + " was given up";
    } else if (attempt.too_long) {
      problem.kind = REST_Problem::unusable;
      problem.text = "the answer of " + base_ + " is longer than " +
                     std::to_string(attempt.call.most_answer_bytes) + " bytes";
    } else if (is_certificate_failure(code)) {
      problem.kind = REST_Problem::unusable;
      problem.text = "the server at " + base_ + " cannot be trusted: " +
                     trust_problem(handle, code, why, !options_.ca_pem.empty() || !options_.ca_file.empty());
    } else if (problem.kind == REST_Problem::unreachable)
      problem.text = "cannot reach the backup server " + base_ + ": " + why +
                     "; check that it runs and that the network lets this host through";
    else
      problem.text = "the connection to the backup server " + base_ + " was lost: " + why;
  }

  REST_Client_Options options_;
  std::string base_;
  std::string url_problem_;
  std::mutex lock_;
  std::vector<Handle> idle_;
};
} // namespace

std::shared_ptr<REST_Transport> make_curl_transport(const REST_Client_Options& options)
{
  return std::make_shared<Curl_Transport>(options);
}
} // namespace kestrel
