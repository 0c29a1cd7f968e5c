// Measures the archive writer and reader of logical jobs together with the storage client, without the tools
// around them. bench/run-archive.sh drives it and compares it with tar and zstd.
//
//   archive_bench write POOL METHOD LEVEL WORKERS FILE...   the files into the next archive of the pool
//   archive_bench read POOL NUMBER DIRECTORY [PATH]         everything, or one file, of an archive
//
// "write" prints the bytes of the files, those of the archive, and its number; "read" the bytes of the files,
// those of the archive, and how many of these were read.

#include "archive/mtf.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{
const char minor_id[] = "archive-bench";

class Watching : public MTF::Event_Handler
{
public:
  Watching() : Event_Handler(nullptr) {}
  int handle_progress(int, unsigned long long, unsigned long long, unsigned long long storage_bytes) override
  {
    storage_bytes_ = storage_bytes;
    return 0;
  }
  unsigned long long storage_bytes_ = 0;
};

int write_archive(int argc, char** argv)
{
  Pool_Info pool;
  pool.storage_path = argv[2];
  MTF::Metadata metadata;
  MTF_Backup backup(nullptr, metadata, nullptr);
  for (int i = 6; i < argc; ++i)
    backup.add_source(argv[i]);
  backup.minor_resource_id(minor_id);
  backup.compression(
      compression_to_mtf(compression_name_to_value(argv[3], static_cast<unsigned>(std::strlen(argv[3])))));
  backup.compression_level(std::atoi(argv[4]));
  backup.extra_client_io_opts().compression_workers = static_cast<unsigned>(std::atoi(argv[5]));
  if (!backup.backup(pool)) {
    std::fprintf(stderr, "archive_bench: %s\n", backup.error().c_str());
    return 1;
  }
  std::printf("%llu %llu %llu\n", backup.source_size(), backup.set_size(), backup.seq());
  return 0;
}

int read_archive(int argc, char** argv)
{
  const std::string path = argv[2];
  kestrel::set_pool_finder([path](const std::string&, Pool_Info& info, std::string&) {
    info.storage_path = path;
    return true;
  });
  Watching handler;
  MTF_Restore restore(&handler, nullptr);
  restore.pool_uuid("bench");
  restore.backup_minor_resource_id(minor_id);
  restore.seq(std::strtoull(argv[3], nullptr, 10));
  json_spirit::Array dirs;
  if (argc > 5) {
    json_spirit::Object dir;
    dir.emplace_back("dir", argv[5]);
    dirs.push_back(dir);
  }
  if ((!dirs.empty() && !restore.restore_select(dirs)) || !restore.restore(argv[4])) {
    std::fprintf(stderr, "archive_bench: %s\n", restore.error().c_str());
    return 1;
  }
  std::printf("%llu %llu %llu\n", restore.size(), restore.set_size(), handler.storage_bytes_);
  return 0;
}
} // namespace

int main(int argc, char** argv)
{
  if (argc > 6 && std::strcmp(argv[1], "write") == 0)
    return write_archive(argc, argv);
  if (argc > 4 && std::strcmp(argv[1], "read") == 0)
    return read_archive(argc, argv);
  std::fprintf(stderr,
               "usage: archive_bench write POOL METHOD LEVEL WORKERS FILE... | read POOL NUMBER DIRECTORY "
               "[PATH]\n");
  return 2;
}
