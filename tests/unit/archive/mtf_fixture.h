#pragma once

#include "archive/mtf.h"
#include "support/fault_file_system.h"
#include "support/hasty_file_system.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrel_test
{
/// Records what a transfer tells and can end or pause it at a chosen block.
class Recording_Handler : public MTF::Event_Handler
{
public:
  Recording_Handler() : Event_Handler(nullptr)
  {
    pausing_when([this] { return ++pause_questions_ <= pause_for_; });
  }
  int notify_event(unsigned event, const MTF::Opts& opts) override;
  int handle_progress(int progress, unsigned long long a, unsigned long long b,
                      unsigned long long c) override;
  bool canceling() override { return ++questions_ > cancel_after_; }

  std::vector<int> percents_;
  std::vector<std::string> events_;
  unsigned long long a_ = 0, b_ = 0, c_ = 0;
  unsigned questions_ = 0;
  unsigned cancel_after_ = ~0u;
  unsigned pause_questions_ = 0;
  unsigned pause_for_ = 0;
};

/// Actions made of functions; an empty one succeeds.
class Test_Actions : public Action_Handler
{
public:
  bool pre_action() override
  {
    ++pre_runs_;
    return !pre_ || pre_();
  }
  bool post_action() override
  {
    ++post_runs_;
    return !post_ || post_();
  }
  int wait_pre_action(const ACE_Time_Value* timeout) override { return timeout ? -2 : pre_wait_; }
  int wait_post_action(const ACE_Time_Value* timeout) override { return timeout ? -2 : post_wait_; }

  std::function<bool()> pre_, post_;
  int pre_wait_ = 0, post_wait_ = 0;
  unsigned pre_runs_ = 0, post_runs_ = 0;
};

/// A pool, a folder with dump files and a folder to restore into.
class MTF_Fixture : public testing::Test
{
protected:
  MTF_Fixture();
  ~MTF_Fixture() override;

  /// A source file; its path is `dumps_`/NAME.
  std::string dump(const std::string& name, const std::string& content);
  std::unique_ptr<MTF_Backup> make_backup(const std::vector<std::string>& sources);
  std::unique_ptr<MTF_Restore> make_restore(unsigned long long seq = 1);
  /// Stores the sources as the next number.
  bool backup(const std::vector<std::string>& sources);
  /// The file of that number in the pool.
  std::string stored(unsigned long long seq = 1) const;
  std::vector<std::string> stored_names() const;
  /// Files below the folder that is restored into, "folder/name" for each.
  std::vector<std::string> restored_names() const;
  static json_spirit::Array dirs(const std::vector<std::string>& paths);

  Hasty_File_System file_system_;
  Log_Capture log_;
  Temp_Dir dir_;
  std::string dumps_, target_;
  Pool_Info pool_;
  Recording_Handler handler_;
  Test_Actions* actions_;
  Action_Handler_Ptr action_handler_;
  MTF::Metadata metadata_;
  Compression_Method method_ = COMPRESSION_NONE;
};

/// `size` bytes that compress to about half.
std::string dump_content(size_t size, unsigned seed = 1);
} // namespace kestrel_test
