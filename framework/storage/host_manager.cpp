#include "storage/host_manager.h"

#include <set>

namespace
{
const int ACCESS_KEY_HEAD = 49;

// Keys handed out as plain pointers must outlive every caller, so each distinct key is kept until the process
// ends.
const char* keep_key(const char* key)
{
  static std::set<std::string>* kept_keys = new std::set<std::string>;
  return key == nullptr ? nullptr : kept_keys->insert(key).first->c_str();
}
} // namespace

Host_Manager* Host_Manager::instance()
{
  static Host_Manager* manager = new Host_Manager;
  return manager;
}

bool Host_Manager::on_backupd() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return on_backupd_;
}

const char* Host_Manager::access_key() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return access_key_;
}

const char* Host_Manager::node_access_key() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return node_access_key_;
}

void Host_Manager::configure(bool on_backupd, const char* access_key, const char* node_access_key)
{
  std::lock_guard<std::mutex> guard(lock_);
  on_backupd_ = on_backupd;
  access_key_ = keep_key(access_key);
  node_access_key_ = keep_key(node_access_key);
}

const char* http_head_string(int head, int)
{
  return head == ACCESS_KEY_HEAD ? "X-Access-Key" : nullptr;
}
