#pragma once

#include "served_place.h"

#include "base/checksum.h"
#include "remote/remote_storage.h"
#include "storage/client_io.h"
#include "support/clocks.h"
#include "support/fault_file_system.h"
#include "support/hasty_file_system.h"
#include "support/log_capture.h"
#include "unit/storage/storage_fixture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace kestrel_test
{
/// A pool of a server that is reached without a network, and short forms for files in it.
class Served_Storage : public testing::Test
{
protected:
  Served_Storage()
  {
    pool_ = place_.add_pool("main");
    location_ = "/" + pool_.pool_id + "/source";
    options_.back_end = kestrel::SERVER_STORAGE;
    options_.storage_path = "/" + pool_.pool_id;
    use_host("host-1");
  }
  ~Served_Storage() override { kestrel::register_storage_back_end(kestrel::SERVER_STORAGE, nullptr); }

  void use_host(const std::string& host)
  {
    transport_ = std::make_shared<Direct_Transport>(place_, host);
    kestrel::REST_Client_Options options;
    options.url = "https://server:7480";
    const auto client = std::make_shared<kestrel::REST_Client>(options, transport_);
    kestrel::register_storage_back_end(kestrel::SERVER_STORAGE, [client] {
      return std::make_unique<kestrel::Remote_Back_End>(client, 60);
    });
  }

  std::string path(const std::string& name) const { return pool_.storage_path + "/source/" + name; }

  bool store(const std::string& name, const std::string& content)
  {
    Client_IO_Ex client;
    const bool good = client.connect(location_, options_) && client.open(name, 2, 0, 0) &&
                      client.write(content.data(), static_cast<unsigned>(content.size())) && client.close();
    name_taken_ = client.name_taken();
    error_ = client.error();
    return good;
  }

  /// What is in the file; "" when it cannot be read.
  std::string fetch(const std::string& name)
  {
    Client_IO_Ex client;
    std::string content(16u << 20, '\0');
    int count = -1;
    if (client.connect(location_, options_) && client.open(name, 1, 0, 0))
      count = client.read(&content[0], 16u << 20);
    error_ = client.error();
    content.resize(static_cast<size_t>(std::max(count, 0)));
    return content;
  }

  bool remove(const std::string& name)
  {
    Client_IO_Ex client;
    const bool good = client.connect(location_, options_) && client.remove(name);
    error_ = client.error();
    return good;
  }

  /// One request by a host or, for the names of roles, by a user.
  int ask(const std::string& method, const std::string& path, const std::string& body = "",
          const std::string& who = "host-1")
  {
    kestrel::REST_Request request;
    request.method = method;
    request.body = body;
    if (who.compare(0, 4, "host") == 0)
      request.headers["x-access-key"] = who + ".key";
    else if (!who.empty())
      request.headers["authorization"] = "Bearer " + who;
    reply_ = place_.handle(request, "/k2/r/" + path);
    return reply_.status;
  }

  Fake_Clock clock_;
  Hasty_File_System file_system_;
  Served_Place place_;
  Pool_Info pool_;
  std::string location_;
  Client_IO_Base::Options options_;
  std::shared_ptr<Direct_Transport> transport_;
  bool name_taken_ = false;
  std::string error_;
  kestrel::REST_Reply reply_;
};
} // namespace kestrel_test
