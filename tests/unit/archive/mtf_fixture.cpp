#include "mtf_fixture.h"

#include <algorithm>
#include <filesystem>

namespace kestrel_test
{
namespace
{
const char minor_id[] = "0123456789abcdef0123456789abcdef";

std::vector<std::string> files_below(const std::string& directory)
{
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory, ignored))
    if (!entry.is_directory())
      names.push_back(entry.path().string().substr(directory.size() + 1));
  std::sort(names.begin(), names.end());
  return names;
}
} // namespace

int Recording_Handler::notify_event(unsigned event, const MTF::Opts& opts)
{
  const std::string path = opts.at("path").get_str();
  events_.push_back((event == MTF::event_file_begins ? "begin " : "done ") +
                    path.substr(path.rfind('/') + 1) + " " + std::to_string(opts.at("size").get_uint64()));
  return 0;
}

int Recording_Handler::handle_progress(int progress, unsigned long long a, unsigned long long b,
                                       unsigned long long c)
{
  percents_.push_back(progress);
  a_ = a;
  b_ = b;
  c_ = c;
  return -1; // nobody may care
}

MTF_Fixture::MTF_Fixture()
    : dumps_(dir_.make_dir("dump/id")), target_(dir_.make_dir("target")), actions_(new Test_Actions),
      action_handler_(actions_)
{
  pool_.pool_id = "pool-1";
  pool_.storage_path = dir_.make_dir("pool");
  kestrel::set_pool_finder([this](const std::string& id, Pool_Info& info, std::string& error) {
    if (id == pool_.pool_id) {
      info = pool_;
      return true;
    }
    error = "no pool " + id;
    return false;
  });
  json_spirit::Object metadata;
  metadata.emplace_back("dbinstance", "DB1");
  metadata_.metadata(metadata);
}

MTF_Fixture::~MTF_Fixture()
{
  kestrel::set_pool_finder(nullptr);
}

std::string MTF_Fixture::dump(const std::string& name, const std::string& content)
{
  return dir_.write("dump/id/" + name, content, 0640);
}

std::unique_ptr<MTF_Backup> MTF_Fixture::make_backup(const std::vector<std::string>& sources)
{
  auto backup = std::make_unique<MTF_Backup>(&handler_, metadata_, nullptr);
  for (const std::string& source : sources)
    backup->add_source(source);
  backup->action_handler(action_handler_);
  backup->pool_uuid("pool-1");
  backup->device_uuid("device");
  backup->host_uuid("host");
  backup->definition_uuid("definition");
  backup->minor_resource_id(minor_id);
  backup->uuid("uuid");
  backup->seq(0);
  backup->compression(compression_to_mtf(method_));
  backup->compression_level(1);
  backup->incremental(false);
  return backup;
}

std::unique_ptr<MTF_Restore> MTF_Fixture::make_restore(unsigned long long seq)
{
  auto restore = std::make_unique<MTF_Restore>(&handler_, nullptr);
  restore->action_handler(action_handler_);
  restore->pool_uuid("pool-1");
  restore->definition_uuid("definition");
  restore->backup_host_uuid("host");
  restore->backup_minor_resource_id(minor_id);
  restore->seq(seq);
  return restore;
}

bool MTF_Fixture::backup(const std::vector<std::string>& sources)
{
  return make_backup(sources)->backup(pool_);
}

std::string MTF_Fixture::stored(unsigned long long seq) const
{
  return pool_.storage_path + "/" + minor_id + "/" + kestrel::archive_file_name(seq);
}

std::vector<std::string> MTF_Fixture::stored_names() const
{
  return files_below(pool_.storage_path + "/" + minor_id);
}

std::vector<std::string> MTF_Fixture::restored_names() const
{
  return files_below(target_);
}

json_spirit::Array MTF_Fixture::dirs(const std::vector<std::string>& paths)
{
  json_spirit::Array array;
  for (const std::string& path : paths) {
    json_spirit::Object object;
    object.emplace_back("dir", path);
    array.push_back(object);
  }
  return array;
}

std::string dump_content(size_t size, unsigned seed)
{
  std::string content(size, '\0');
  uint64_t state = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    content[i] = static_cast<char>('a' + (state >> 60));
  }
  return content;
}
} // namespace kestrel_test
