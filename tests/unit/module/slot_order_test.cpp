#include "instances/instance_handler.h"
#include "jobs/job_creator.h"
#include "jobs/job_document.h"
#include "slot.h"
#include "json/object_creator.h"
#include "json/yajl_handler.h"

#include <gtest/gtest.h>

using kestrel_test::slot;

// Module and framework are built apart, so that the order of these functions is part of their interface.

TEST(Slot_Order, yajl_handler)
{
  EXPECT_EQ(slot(&YAJL_Handler::handle_null_i), 2u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_boolean_i), 3u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_integer_i), 4u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_double_i), 5u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_number_i), 6u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_string_i), 7u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_start_map_i), 8u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_map_key_i), 9u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_end_map_i), 10u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_start_array_i), 11u);
  EXPECT_EQ(slot(&YAJL_Handler::handle_end_array_i), 12u);
}

TEST(Slot_Order, yajl_parser_adds_its_result_at_the_end)
{
  EXPECT_EQ(slot(&YAJL_Parser<Job_Source>::result), 13u);
  EXPECT_EQ(slot(&YAJL_Parser<Job_Options>::result), 13u);
}

TEST(Slot_Order, object_creator)
{
  typedef Object_Creator_T<YAJL_Handler> Creator;
  EXPECT_EQ(slot(&Creator::init), 2u);
  EXPECT_EQ(slot(&Creator::fini), 3u);
  EXPECT_EQ(slot(&Creator::create), 4u);
  EXPECT_EQ(slot(&Creator::destroy), 5u);
}

TEST(Slot_Order, job_creator)
{
  EXPECT_EQ(slot(&Job_Creator::init), 2u);
  EXPECT_EQ(slot(&Job_Creator::fini), 3u);
  EXPECT_EQ(slot(&Job_Creator::create), 4u);
}

TEST(Slot_Order, job_documents)
{
  EXPECT_EQ(slot(&Job_Source::generate), 2u);
  EXPECT_EQ(slot(&Job_Options::generate), 2u);
}

TEST(Slot_Order, instance_handler)
{
  EXPECT_EQ(slot(&Instance_Handler::init), 2u);
  EXPECT_EQ(slot(&Instance_Handler::probe_instances), 3u);
  EXPECT_EQ(slot(&Instance_Handler::get_state), 4u);
  EXPECT_EQ(slot(&Instance_Handler::logon), 5u);
  EXPECT_EQ(slot(&Instance_Handler::update_options), 6u);
  EXPECT_EQ(slot(&Instance_Handler::get_port), 7u);
}
