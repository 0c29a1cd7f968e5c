#pragma once

#include "storage/client_io.h"
#include "support/hasty_file_system.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrel_test
{
/// A pool in a temporary directory, with the short forms that most storage tests need.
class Storage_Fixture : public testing::Test
{
protected:
  Storage_Fixture() : pool_(dir_.make_dir("pool")), location_(pool_ + "/source")
  {
    options_.storage_path = pool_;
  }

  std::string stored_path(const std::string& name) const { return location_ + "/" + name; }
  std::string side_path(const std::string& name) const { return stored_path(name) + ".meta"; }
  std::string partial_path(const std::string& name) const { return stored_path(name) + ".partial"; }

  /// Stores `content` in pieces of `piece` bytes; false with `error` filled.
  bool store(const std::string& name, const std::string& content, std::string& error, unsigned piece = 8192);
  /// The same, expecting success.
  void store(const std::string& name, const std::string& content);
  /// Reads to the end; false with `error` filled when anything fails. `content` gets what was read before.
  bool fetch(const std::string& name, std::string& content, std::string& error, unsigned piece = 8192);
  /// The same, expecting success.
  std::string fetch(const std::string& name);

  Hasty_File_System file_system_;
  Temp_Dir dir_;
  std::string pool_;
  std::string location_;
  Client_IO_Base::Options options_;
};

/// `size` bytes that compress to about half and differ for each seed.
std::string test_content(size_t size, unsigned seed = 1);

/// Names of everything in a directory, sorted.
std::vector<std::string> names_in(const std::string& directory);
} // namespace kestrel_test
