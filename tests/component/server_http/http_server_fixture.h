#pragma once

#include "raw_client.h"
#include "rpc/http_server.h"
#include "support/log_capture.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
using namespace kestrel;

/// A plain server whose handler tells what it got. "/wait" waits until it is released.
class Http_Server : public testing::Test
{
protected:
  Http_Server()
  {
    options_.address = "127.0.0.1";
    options_.workers = 4;
    options_.limits.header_msec = 20000;
    options_.limits.idle_msec = 20000;
    options_.limits.request_msec = 20000;
  }
  ~Http_Server() override
  {
    release();
    server_.stop(0);
  }

  void start()
  {
    std::string error;
    ASSERT_TRUE(server_.start(
        options_,
        [this](REST_Request& request, const std::string& target) { return answer(request, target); }, error))
        << error;
  }

  REST_Reply answer(REST_Request& request, const std::string& target)
  {
    REST_Reply reply;
    reply.content_type = "text/plain";
    reply.raw = request.method + " " + target + " " + std::to_string(request.body.size());
    if (target == "/wait") {
      std::unique_lock<std::mutex> lock(mutex_);
      ++waiting_;
      changed_.notify_all();
      changed_.wait(lock, [this] { return released_; });
    }
    if (target == "/echo")
      reply.raw = request.body;
    if (target == "/large")
      reply.raw = std::string(8 << 20, 'x');
    if (target == "/after")
      reply.after_sent = [this](bool written) {
        std::lock_guard<std::mutex> guard(mutex_);
        followed_.push_back(written);
        changed_.notify_all();
      };
    if (target == "/throw")
      throw 7;
    if (target == "/empty") {
      reply = REST_Reply();
      reply.status = 204;
    }
    return reply;
  }

  void wait_for_waiting(unsigned count)
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(30), [&] { return waiting_ >= count; });
    ASSERT_LE(count, waiting_);
  }
  void release()
  {
    std::lock_guard<std::mutex> guard(mutex_);
    released_ = true;
    changed_.notify_all();
  }
  std::vector<bool> followed()
  {
    std::lock_guard<std::mutex> guard(mutex_);
    return followed_;
  }

  std::unique_ptr<Raw_Client> client() { return std::make_unique<Raw_Client>(server_.port()); }
  Raw_Reply ask(const std::string& text) { return client()->ask(text); }
  int status_of(const std::string& text) { return ask(text).status; }
  bool serves() { return status_of(http_request("GET", "/a")) == 200; }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool released_ = false;
  unsigned waiting_ = 0;
  std::vector<bool> followed_;
  HTTP_Server_Options options_;
  HTTP_Server server_;
};
} // namespace kestrel_test
