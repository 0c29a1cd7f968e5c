#include "oscar/module_entry.h"

#include "support/no_memory.h"
#include "oscar/backup_job_options_parser.h"
#include "oscar/backup_job_source_parser.h"
#include "oscar/instance/oscar_instance_handler.h"
#include "oscar/oscar_job_creator.h"
#include "oscar/restore_job_options_parser.h"
#include "oscar/restore_job_source_parser.h"

#include <gtest/gtest.h>

#include <cerrno>

using kestrel_test::No_Memory;

namespace
{
typedef void (*Gobbler)(void*);
typedef Object_Creator_T<YAJL_Handler> Parser_Creator;

/// Takes an object from a factory and gives it back.
template <class Service> void expect_made_and_released(Service* (*make)(Gobbler*), Gobbler gobble)
{
  Gobbler gobbler = nullptr;
  Service* object = make(&gobbler);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(gobbler, gobble);
  gobbler(object);

  Service* other = make(nullptr);
  ASSERT_NE(other, nullptr);
  gobble(other);
  gobble(nullptr);
}

template <class Service> void expect_out_of_memory(Service* (*make)(Gobbler*))
{
  No_Memory none;
  errno = 0;
  EXPECT_EQ(make(nullptr), nullptr);
  EXPECT_EQ(errno, ENOMEM);
}

template <class Parser> void expect_parsers(Parser_Creator* (*make)(Gobbler*), Gobbler gobble)
{
  Parser_Creator* creator = make(nullptr);
  ASSERT_NE(creator, nullptr);
  EXPECT_EQ(creator->init(0, nullptr), 0);
  YAJL_Handler* parser = creator->create();
  EXPECT_NE(dynamic_cast<Parser*>(parser), nullptr);
  creator->destroy(parser);
  creator->destroy(nullptr);
  // The parser itself, then its document (a parser without one is still a parser), then the counter of
  // references.
  {
    No_Memory none;
    errno = 0;
    EXPECT_EQ(creator->create(), nullptr);
    EXPECT_EQ(errno, ENOMEM);
  }
  {
    No_Memory none(2);
    errno = 0;
    EXPECT_EQ(creator->create(), nullptr);
    EXPECT_EQ(errno, ENOMEM);
  }
  gobble(creator);
}

/// Counts what a gobbler does to the creator it is given.
struct Counting_Creator : Parser_Creator {
  explicit Counting_Creator(std::string& calls) : calls_(calls) {}
  ~Counting_Creator() override { calls_ += "delete "; }
  int fini() override
  {
    calls_ += "fini ";
    return -1;
  }
  YAJL_Handler* create() override { return nullptr; }
  void destroy(YAJL_Handler*) override {}

  std::string& calls_;
};

struct Counting_Job_Creator : Job_Creator {
  explicit Counting_Job_Creator(std::string& calls) : calls_(calls) {}
  ~Counting_Job_Creator() override { calls_ += "delete "; }
  int fini() override
  {
    calls_ += "fini ";
    return 0;
  }

  std::string& calls_;
};
} // namespace

TEST(Module_Entry, makes_and_releases_each_service)
{
  expect_made_and_released(&_make_Oscar_Job_Creator, &_gobble_Oscar_Job_Creator);
  expect_made_and_released(&_make_Oscar_Backup_Job_Source_Parser_Creator,
                           &_gobble_Oscar_Backup_Job_Source_Parser_Creator);
  expect_made_and_released(&_make_Oscar_Backup_Job_Options_Parser_Creator,
                           &_gobble_Oscar_Backup_Job_Options_Parser_Creator);
  expect_made_and_released(&_make_Oscar_Restore_Job_Source_Parser_Creator,
                           &_gobble_Oscar_Restore_Job_Source_Parser_Creator);
  expect_made_and_released(&_make_Oscar_Restore_Job_Options_Parser_Creator,
                           &_gobble_Oscar_Restore_Job_Options_Parser_Creator);
  expect_made_and_released(&_make_JSON_RPC_Oscar_List_Handler, &_gobble_JSON_RPC_Oscar_List_Handler);
  expect_made_and_released(&_make_JSON_RPC_Oscar_Node_Handler, &_gobble_JSON_RPC_Oscar_Node_Handler);
  expect_made_and_released(&_make_JSON_RPC_Oscar_Notify_Node_Handler,
                           &_gobble_JSON_RPC_Oscar_Notify_Node_Handler);
  expect_made_and_released(&_make_Oscar_Instance_Handler, &_gobble_Oscar_Instance_Handler);
}

TEST(Module_Entry, reports_that_there_is_no_memory)
{
  expect_out_of_memory(&_make_Oscar_Job_Creator);
  expect_out_of_memory(&_make_Oscar_Backup_Job_Source_Parser_Creator);
  expect_out_of_memory(&_make_Oscar_Backup_Job_Options_Parser_Creator);
  expect_out_of_memory(&_make_Oscar_Restore_Job_Source_Parser_Creator);
  expect_out_of_memory(&_make_Oscar_Restore_Job_Options_Parser_Creator);
  expect_out_of_memory(&_make_JSON_RPC_Oscar_List_Handler);
  expect_out_of_memory(&_make_JSON_RPC_Oscar_Node_Handler);
  expect_out_of_memory(&_make_JSON_RPC_Oscar_Notify_Node_Handler);
  expect_out_of_memory(&_make_Oscar_Instance_Handler);
}

TEST(Module_Entry, each_parser_creator_makes_its_own_parser)
{
  expect_parsers<oscar::Backup_Job_Source_Parser>(&_make_Oscar_Backup_Job_Source_Parser_Creator,
                                                  &_gobble_Oscar_Backup_Job_Source_Parser_Creator);
  expect_parsers<oscar::Backup_Job_Options_Parser>(&_make_Oscar_Backup_Job_Options_Parser_Creator,
                                                   &_gobble_Oscar_Backup_Job_Options_Parser_Creator);
  expect_parsers<oscar::Restore_Job_Source_Parser>(&_make_Oscar_Restore_Job_Source_Parser_Creator,
                                                   &_gobble_Oscar_Restore_Job_Source_Parser_Creator);
  expect_parsers<oscar::Restore_Job_Options_Parser>(&_make_Oscar_Restore_Job_Options_Parser_Creator,
                                                    &_gobble_Oscar_Restore_Job_Options_Parser_Creator);
}

TEST(Module_Entry, only_parser_creators_get_fini_before_they_are_deleted)
{
  for (Gobbler gobble :
       {&_gobble_Oscar_Backup_Job_Source_Parser_Creator, &_gobble_Oscar_Backup_Job_Options_Parser_Creator,
        &_gobble_Oscar_Restore_Job_Source_Parser_Creator,
        &_gobble_Oscar_Restore_Job_Options_Parser_Creator}) {
    std::string calls;
    gobble(static_cast<Parser_Creator*>(new Counting_Creator(calls)));
    EXPECT_EQ(calls, "fini delete ");
  }
  std::string calls;
  _gobble_Oscar_Job_Creator(static_cast<Job_Creator*>(new Counting_Job_Creator(calls)));
  EXPECT_EQ(calls, "delete ");
}

TEST(Job_Documents, a_parser_without_memory_for_its_document_still_checks_the_structure)
{
  errno = 0;
  auto parser = [] {
    No_Memory none(0, 1);
    return oscar::Backup_Job_Source_Parser();
  }();
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(parser.result().get(), nullptr);
  EXPECT_TRUE(parser.handle_start_map_i());
  EXPECT_TRUE(parser.handle_map_key_i("id", 2));
  EXPECT_TRUE(parser.handle_string_i("x", 1));
  EXPECT_TRUE(parser.handle_map_key_i("entries", 7));
  EXPECT_FALSE(parser.handle_string_i("x", 1));
  EXPECT_EQ(parser.error(), 9);
  EXPECT_TRUE(parser.handle_start_array_i());
  EXPECT_TRUE(parser.handle_string_i("x", 1));
  EXPECT_TRUE(parser.handle_end_array_i());
  EXPECT_TRUE(parser.handle_end_map_i());
}

TEST(Job_Documents, a_restore_parser_without_memory_ignores_what_it_cannot_store)
{
  auto parser = [] {
    No_Memory none(0, 1);
    return oscar::Restore_Job_Source_Parser();
  }();
  EXPECT_TRUE(parser.handle_start_map_i());
  EXPECT_TRUE(parser.handle_map_key_i("seq", 3));
  EXPECT_TRUE(parser.handle_number_i("1", 1));
  EXPECT_TRUE(parser.handle_map_key_i("id", 2));
  EXPECT_TRUE(parser.handle_string_i("x", 1));
  EXPECT_TRUE(parser.handle_map_key_i("original", 8));
  EXPECT_TRUE(parser.handle_start_map_i());
  EXPECT_TRUE(parser.handle_map_key_i("database", 8));
  EXPECT_TRUE(parser.handle_string_i("d", 1));
  EXPECT_TRUE(parser.handle_end_map_i());
  EXPECT_TRUE(parser.handle_end_map_i());
  EXPECT_EQ(parser.result().get(), nullptr);
}
