#pragma once

#include "rpc/json_rpc_peer.h"
#include "rpc/websocket_client.h"
#include "support/waiting.h"
#include "support/websocket_listener.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// Keeps what a connection delivers.
class Inbox : public kestrel::Message_Receiver
{
public:
  void message(const std::string& text) override
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    texts_.push_back(text);
  }
  void closed(const std::string& why) override
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    EXPECT_FALSE(closed_) << "told twice";
    closed_ = true;
    why_ = why;
  }

  std::vector<std::string> texts() const
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    return texts_;
  }
  /// Waits for the n-th text, counted from 0.
  std::string text(std::size_t number) const
  {
    EXPECT_TRUE(kestrel_test::eventually([&] { return texts().size() > number || is_closed(); }));
    const std::vector<std::string> now = texts();
    return now.size() > number ? now[number] : "nothing, closed: " + why();
  }
  bool is_closed() const
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    return closed_;
  }
  /// Waits for the end and gives its reason.
  std::string end() const
  {
    EXPECT_TRUE(kestrel_test::eventually([this] { return is_closed(); }));
    return why();
  }

private:
  std::string why() const
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    return why_;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> texts_;
  bool closed_ = false;
  std::string why_;
};

/// A client with a CA of its own and its network thread.
class Network_Test : public testing::Test
{
protected:
  Network_Test() { EXPECT_TRUE(threads_.start()); }

  kestrel_test::WebSocket_Listener::Options
  listener_options(const kestrel_test::Certificate_Wish& wish = {}) const
  {
    kestrel_test::WebSocket_Listener::Options options;
    options.certificate = authority_.issue(wish);
    return options;
  }
  kestrel::WebSocket_Dial to(const std::string& url) const
  {
    kestrel::WebSocket_Dial dial;
    dial.url = url;
    dial.tls.ca_pem = authority_.ca_pem();
    return dial;
  }
  /// A connection that must come about.
  std::shared_ptr<kestrel::WebSocket_Channel> connect(const kestrel::WebSocket_Dial& dial)
  {
    kestrel::WebSocket_Failure failure;
    std::shared_ptr<kestrel::WebSocket_Channel> channel = client_.dial(dial, failure);
    EXPECT_TRUE(channel) << failure.message;
    return channel;
  }
  /// One that must not.
  kestrel::WebSocket_Failure refused(const kestrel::WebSocket_Dial& dial)
  {
    kestrel::WebSocket_Failure failure;
    EXPECT_FALSE(client_.dial(dial, failure));
    return failure;
  }

  const kestrel_test::Certificate_Authority authority_;
  kestrel::Network_Threads threads_;
  kestrel::WebSocket_Client client_{threads_};
};
