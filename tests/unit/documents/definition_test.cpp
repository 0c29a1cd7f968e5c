#include "jobs/job_definition_loader.h"
#include "oscar/backup_job_options.h"
#include "oscar/backup_job_source.h"
#include "oscar/module_entry.h"
#include "oscar/restore_job_source.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <memory>

using kestrel::Job_Definition_Loader;
using kestrel_test::Log_Capture;

namespace
{
typedef Object_Creator_T<YAJL_Handler> Parser_Creator;
typedef std::unique_ptr<Parser_Creator, void (*)(void*)> Creator_Ptr;

const char head[] =
    R"({"id":"0c9f6d1e-3b52-4f0a-9a57-1d2c3b4a5f60","uid":"5d0f3f0e-2f64-4f5c-8a2b-6b7c8d9e0f11",)"
    R"("target":{"id":"9a1b2c3d-4e5f-4a6b-8c7d-0e1f2a3b4c5d"},)";

/// Definitions with the documents of this module.
class Definition : public testing::Test
{
protected:
  Definition()
  {
    loader_.add_parsers(JOB_DEFINITION_BACKUP, backup_source_.get(), backup_options_.get());
    loader_.add_parsers(JOB_DEFINITION_RESTORE, restore_source_.get(), restore_options_.get());
  }

  Job_Definition_Ptr load(const std::string& text)
  {
    Job_Definition_Ptr definition;
    std::string error;
    EXPECT_TRUE(loader_.load(text, definition, error)) << error << "\n" << text;
    return definition;
  }

  std::string refusal(const std::string& text)
  {
    Job_Definition_Ptr definition;
    std::string error;
    EXPECT_FALSE(loader_.load(text, definition, error)) << text;
    return error;
  }

  Job_Definition_Ptr reloaded(const Job_Definition& definition)
  {
    std::string text;
    std::string error;
    EXPECT_TRUE(Job_Definition_Loader::generate(definition, text, error)) << error;
    return load(text);
  }

  Creator_Ptr backup_source_{_make_Oscar_Backup_Job_Source_Parser_Creator(nullptr),
                             &_gobble_Oscar_Backup_Job_Source_Parser_Creator};
  Creator_Ptr backup_options_{_make_Oscar_Backup_Job_Options_Parser_Creator(nullptr),
                              &_gobble_Oscar_Backup_Job_Options_Parser_Creator};
  Creator_Ptr restore_source_{_make_Oscar_Restore_Job_Source_Parser_Creator(nullptr),
                              &_gobble_Oscar_Restore_Job_Source_Parser_Creator};
  Creator_Ptr restore_options_{_make_Oscar_Restore_Job_Options_Parser_Creator(nullptr),
                               &_gobble_Oscar_Restore_Job_Options_Parser_Creator};
  Job_Definition_Loader loader_;
};
} // namespace

TEST_F(Definition, of_a_backup_survives_writing_and_reading)
{
  const Job_Definition_Ptr definition = load(
      std::string(head) + R"("type":"backup","subtype":"incr","source":{"id":"i","entries":["oscar/SZ1/D"]},)"
                          R"("options":{"compression":"lz4","compression_level":4}})");
  const Job_Definition_Ptr again = reloaded(*definition);
  EXPECT_EQ(again->subtype(), JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  const auto* source = dynamic_cast<const oscar::Backup_Job_Source*>(again->source());
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->id(), "i");
  EXPECT_EQ(source->entries(), (std::vector<std::string>{"oscar/SZ1/D"}));
  const auto* options = dynamic_cast<const oscar::Backup_Job_Options*>(again->options());
  ASSERT_NE(options, nullptr);
  EXPECT_EQ(options->compression(), COMPRESSION_LZ4);
  EXPECT_EQ(options->compression_level(), 4);
}

TEST_F(Definition, of_a_restore_without_names_survives_writing_and_reading)
{
  const Job_Definition_Ptr definition = load(
      std::string(head) +
      R"("type":"restore","source":{"id":"i","seq":18446744073709551615,"catalog_id":"c"},"options":{}})");
  const Job_Definition_Ptr again = reloaded(*definition);
  const auto* source = dynamic_cast<const oscar::Restore_Job_Source*>(again->source());
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->seq(), ~uint64_t(0));
  EXPECT_EQ(source->catalog_id(), "c");
  EXPECT_EQ(source->original().database, "");
}

TEST_F(Definition, with_a_source_that_lacks_a_key_is_refused)
{
  Log_Capture log;
  EXPECT_NE(refusal(std::string(head) + R"("type":"backup","source":{"id":"i"}})").find("source"),
            std::string::npos);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, "Failed to parse job definition source, lack of 'entries'.\n"));
}

TEST_F(Definition, with_a_source_that_is_no_object_is_refused)
{
  for (const char* source : {"[]", "[\"x\"]", "\"x\"", "5"})
    EXPECT_NE(refusal(std::string(head) + R"("type":"backup","source":)" + source + "}").find("source"),
              std::string::npos);
}

TEST_F(Definition, with_a_nul_in_its_source_is_refused)
{
  EXPECT_NE(
      refusal(std::string(head) + R"("type":"backup","source":{"id":"a\u0000b","entries":[]}})").find("NUL"),
      std::string::npos);
}
