#include "cli/common_options.h"

#include <CLI/CLI.hpp>

namespace kestrel
{
namespace
{
CLI::Validator unsigned_number()
{
  return CLI::Validator(
      [](std::string& text) {
        const bool digit_first = !text.empty() && text.front() >= '0' && text.front() <= '9';
        return digit_first ? std::string() : "'" + text + "' is not a number of bytes";
      },
      "");
}

/// Digits only: the conversion would take "-1" for the largest number there is.
CLI::Validator count()
{
  return CLI::Validator(
      [](std::string& text) {
        const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
        return digits && text.size() <= 18 ? std::string() : "'" + text + "' is not a number";
      },
      "");
}
} // namespace

const char* const backup_reference_help =
    "id, a unique beginning of it, or 'latest' (with --instance, or when one instance has backups)";

const char* const instance_host_help =
    "host of the instance, where several of the server's have one of this name";

void add_host_option(CLI::App& command, Command_Line& line, const std::string& help)
{
  command.add_option("--host", line.host, "with --server: " + help);
}

void add_limit_option(CLI::App& command, Command_Line& line, const std::string& help)
{
  command.add_option("--limit", line.limit, help)->check(count())->capture_default_str();
}

void add_storage_options(CLI::App& command, Command_Line& line)
{
  command.add_option("--pool", line.pool, "pool to store it in; the default pool when not given");
  command.add_option("--compression", line.compression, "compression method")
      ->check(CLI::IsMember({"none", "zlib", "lz4", "zstd"}))
      ->capture_default_str();
  command.add_option("--compression-level", line.compression_level, "level of the method; 1 when not given")
      ->check(CLI::Range(1, 22));
  command
      .add_option("--rate-limit", line.rate_limit_bytes_per_second,
                  "bytes a second at the most; k, m and g (1024 based) may follow the number")
      ->transform(CLI::AsSizeValue(false))
      ->transform(unsigned_number()); // runs first: the size parser would wrap "-1" around
}
} // namespace kestrel
