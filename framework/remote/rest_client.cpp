#include "remote/rest_client.h"

#include "base/clock.h"
#include "base/secure_allocator.h"
#include "remote/curl_transport.h"
#include "json/json_util.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <exception>
#include <mutex>

namespace kestrel
{
namespace
{
const unsigned short DEFAULT_PORT = 7480;
const int64_t FIRST_PAUSE_MSEC = 100;
const int64_t LONGEST_PAUSE_MSEC = 5000;
const int64_t STOP_CHECK_MSEC = 100;
const size_t MOST_MESSAGE_BYTES = 1000;

std::mutex transport_lock;

std::shared_ptr<REST_Transport>& replaced_transport()
{
  static auto* transport = new std::shared_ptr<REST_Transport>;
  return *transport;
}

std::shared_ptr<REST_Transport> transport_for(const REST_Client_Options& options)
{
  std::shared_ptr<REST_Transport> transport;
  {
    std::lock_guard<std::mutex> guard(transport_lock);
    transport = replaced_transport();
  }
  return transport ? transport : make_curl_transport(options);
}

bool is_unreserved(char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

/// Foreign text for a message: one line of bounded length.
std::string one_line(std::string text)
{
  text.resize(std::min(text.size(), MOST_MESSAGE_BYTES));
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; },
      ' ');
  return utf8_without_invalid(text);
}

bool is_busy_status(int status)
{
  return status == 429 || (status >= 500 && status <= 599);
}

bool is_worth_repeating(const REST_Problem& problem, const REST_Retry& retry)
{
  if (problem.kind == REST_Problem::lost)
    return retry.repeat_lost;
  const bool passing =
      problem.status == 429 || problem.status == 502 || problem.status == 503 || problem.status == 504;
  return problem.kind == REST_Problem::unreachable || (problem.kind == REST_Problem::busy && passing);
}

/// What the server says about a refusal: {"error":{"code","message"}}.
void read_refusal(const REST_Answer& answer, REST_Problem& problem, std::string& message)
{
  try {
    json_spirit::Value value;
    std::string unreadable;
    if (!read_json(answer.body, json_network_limits(), value, unreadable))
      return;
    const auto error = required<json_spirit::Object>(value.get_obj(), "error");
    std::string code;
    optional(error, "code", code);
    problem.code = one_line(code);
    message = one_line(required<std::string>(error, "message"));
  } catch (const std::exception&) {
    // Not in the server's form: the status alone tells.
  }
}

void refusal(const std::string& url, const REST_Answer& answer, REST_Problem& problem)
{
  problem = REST_Problem();
  problem.status = answer.status;
  problem.kind = is_busy_status(answer.status) ? REST_Problem::busy : REST_Problem::refused;
  std::string message;
  read_refusal(answer, problem, message);
  if (!message.empty())
    problem.text = "the backup server " + url +
                   (answer.status == 503 ? " cannot do that now: " : " refused: ") + message;
  else if (answer.status == 401)
    problem.text =
        "the backup server " + url + " does not know this caller (status 401); sign in or enroll again";
  else if (answer.status == 403)
    problem.text = "the backup server " + url + " does not allow this (status 403); ask its administrator";
  else
    problem.text = "the backup server " + url + " answered with status " + std::to_string(answer.status) +
                   "; see the server's log";
}
} // namespace

REST_Transport::~REST_Transport() = default;

REST_Client::REST_Client(const REST_Client_Options& options) : REST_Client(options, transport_for(options)) {}

REST_Client::REST_Client(const REST_Client_Options& options, std::shared_ptr<REST_Transport> transport)
    : url_(options.url), transport_(std::move(transport))
{
}

REST_Client::~REST_Client() = default;

bool REST_Client::exchange(const REST_Call& call, REST_Answer& answer, REST_Problem& problem)
{
  const int64_t end = clock().monotonic_msec() + int64_t(call.retry.seconds) * 1000;
  for (int64_t wait = FIRST_PAUSE_MSEC;; wait = std::min(2 * wait, LONGEST_PAUSE_MSEC)) {
    REST_Answer got;
    REST_Problem why;
    if (transport_->perform(call, got, why)) {
      if (got.status >= 200 && got.status <= 299) {
        answer = std::move(got);
        return true;
      }
      refusal(url_, got, why);
    }
    const int64_t left = end - clock().monotonic_msec();
    if (left <= 0 || !is_worth_repeating(why, call.retry) ||
        !pause_unless(call.stopped, std::min(wait, left))) {
      problem = std::move(why);
      return false;
    }
  }
}

bool REST_Client::call(const REST_Call& call, const json_spirit::Value* body, json_spirit::Value& reply,
                       REST_Problem& problem)
{
  REST_Answer answer;
  std::string text;
  const Wipe_Guard<std::string> wipe_text(text), wipe_answer(answer.body);
  REST_Call request = call;
  try {
    if (body) {
      text = write_json(*body);
      request.body = text.data();
      request.body_bytes = text.size();
      request.has_body = true;
    }
  } catch (const std::exception& failure) {
    problem = {REST_Problem::refused, 0, "", std::string("the request cannot be written: ") + failure.what()};
    return false;
  }
  if (!exchange(request, answer, problem))
    return false;
  json_spirit::Value value;
  std::string cause;
  if (!answer.body.empty() && !read_json(answer.body, json_network_limits(), value, cause)) {
    problem = {REST_Problem::unusable, answer.status, "",
               "the answer of " + url_ + " cannot be used: " + cause +
                   "; check that a backup server listens there"};
    return false;
  }
  reply = std::move(value);
  return true;
}

bool REST_Client::get(const std::string& path, json_spirit::Value& reply, REST_Problem& problem)
{
  REST_Call request;
  request.path = path;
  return call(request, nullptr, reply, problem);
}

bool REST_Client::post(const std::string& path, const json_spirit::Value& body, json_spirit::Value& reply,
                       REST_Problem& problem)
{
  REST_Call request;
  request.method = "POST";
  request.path = path;
  return call(request, &body, reply, problem);
}

bool pause_unless(const std::atomic<bool>* stopped, int64_t msec)
{
  const int64_t end = clock().monotonic_msec() + msec;
  for (int64_t left = msec; left > 0; left = end - clock().monotonic_msec()) {
    if (stopped && *stopped)
      return false;
    clock().sleep_msec(stopped ? std::min(left, STOP_CHECK_MSEC) : left);
  }
  return !stopped || !*stopped;
}

std::string url_escape(const std::string& text)
{
  static const char digits[] = "0123456789ABCDEF";
  std::string escaped;
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (is_unreserved(c))
      escaped += c;
    else {
      escaped += '%';
      escaped += digits[byte >> 4];
      escaped += digits[byte & 15];
    }
  }
  return escaped;
}

std::string rest_path(const std::vector<std::string>& parts)
{
  std::string path = "/k2/r";
  for (const std::string& part : parts)
    path += "/" + url_escape(part);
  return path;
}

std::string rest_path(const std::vector<std::string>& parts,
                      const std::vector<std::pair<std::string, std::string>>& query)
{
  std::string path = rest_path(parts);
  char sign = '?';
  for (const auto& [name, value] : query) {
    path += sign + url_escape(name) + "=" + url_escape(value);
    sign = '&';
  }
  return path;
}

bool parse_server_url(const std::string& url, std::string& host, unsigned short& port, std::string& error)
{
  static const std::string scheme = "https://";
  // The text may hold a password where it is wrong, so it is not shown.
  error = "the address of the backup server must be https://HOST:PORT and nothing else";
  if (url.compare(0, scheme.size(), scheme) != 0)
    return false;
  std::string rest = url.substr(scheme.size());
  if (!rest.empty() && rest.back() == '/')
    rest.pop_back();
  const bool bracketed = !rest.empty() && rest[0] == '[';
  const size_t host_end = bracketed ? rest.find(']') : rest.find(':');
  if (bracketed && host_end == std::string::npos)
    return false;
  const std::string name = bracketed ? rest.substr(1, host_end - 1) : rest.substr(0, host_end);
  const std::string allowed = bracketed ? ":." : "-._";
  for (const char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && allowed.find(c) == std::string::npos)
      return false;
  std::string behind = host_end == std::string::npos ? "" : rest.substr(host_end + (bracketed ? 1 : 0));
  unsigned long number = DEFAULT_PORT;
  if (!behind.empty()) {
    const std::string digits = behind.substr(1);
    if (behind[0] != ':' || digits.empty() || digits.size() > 5 ||
        digits.find_first_not_of("0123456789") != std::string::npos)
      return false;
    number = std::strtoul(digits.c_str(), nullptr, 10);
  }
  if (name.empty() || number == 0 || number > 65535)
    return false;
  error.clear();
  host = name;
  port = static_cast<unsigned short>(number);
  return true;
}

Scoped_REST_Transport::Scoped_REST_Transport(std::shared_ptr<REST_Transport> transport)
{
  std::lock_guard<std::mutex> guard(transport_lock);
  previous_ = replaced_transport();
  replaced_transport() = std::move(transport);
}

Scoped_REST_Transport::~Scoped_REST_Transport()
{
  std::lock_guard<std::mutex> guard(transport_lock);
  replaced_transport() = previous_;
}
} // namespace kestrel
