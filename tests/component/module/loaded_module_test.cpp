#include "agent/module_loader.h"
#include "instances/instance_handler.h"
#include "jobs/job_creator.h"
#include "jobs/job_definition_loader.h"
#include "support/paths.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "json/object_creator.h"
#include "json/yajl_handler.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <memory>

namespace
{
typedef Object_Creator_T<YAJL_Handler> Parser_Creator;
template <class T> using Service = std::unique_ptr<T, void (*)(void*)>;

/// The module as a host has it: loaded from its file, with everything below seen through the framework's
/// types.
class Loaded_Module : public testing::Test
{
protected:
  Loaded_Module() { EXPECT_TRUE(loader_.open(kestrel_test::lib_dir() + "/oscar.so")) << loader_.error(); }

  template <class T> Service<T> make(const char* name)
  {
    void (*release)(void*) = nullptr;
    T* object = loader_.make<T>(name, &release);
    EXPECT_NE(object, nullptr) << name << ": " << loader_.error();
    return Service<T>(object, release);
  }

  const kestrel_test::Temp_Dir root_;
  const kestrel_test::Scoped_Env env_{"KESTREL_ROOT", root_.path()};
  kestrel::Module_Loader loader_;
};

const char backup[] =
    R"({"id":"0c9f6d1e-3b52-4f0a-9a57-1d2c3b4a5f60","uid":"5d0f3f0e-2f64-4f5c-8a2b-6b7c8d9e0f11",
  "type":"backup","subtype":"full","target":{"id":"9a1b2c3d-4e5f-4a6b-8c7d-0e1f2a3b4c5d"},
  "source":{"id":"i","entries":["oscar/SZ1"]},"options":{"compression_level":3}})";
} // namespace

TEST_F(Loaded_Module, its_parsers_fill_a_definition_and_its_creator_makes_the_job)
{
  const auto source_parsers = make<Parser_Creator>("Oscar_Backup_Job_Source_Parser_Creator");
  const auto options_parsers = make<Parser_Creator>("Oscar_Backup_Job_Options_Parser_Creator");
  const auto creator = make<Job_Creator>("Oscar_Job_Creator");
  ASSERT_EQ(creator->init(0, nullptr), 0);

  kestrel::Job_Definition_Loader definitions;
  definitions.add_parsers(JOB_DEFINITION_BACKUP, source_parsers.get(), options_parsers.get());
  Job_Definition_Ptr definition;
  std::string error;
  ASSERT_TRUE(definitions.load(backup, definition, error)) << error;
  EXPECT_EQ(definition->source()->id(), "i");

  const ACE_Intrusive_Auto_Ptr<Job> job = creator->create(definition);
  ASSERT_NE(job.get(), nullptr);
  EXPECT_EQ(&job->definition(), definition.get());
  EXPECT_EQ(creator->fini(), 0);
}

TEST_F(Loaded_Module, its_instance_handler_knows_its_type)
{
  EXPECT_EQ(make<Instance_Handler>("Oscar_Instance_Handler")->type(), "oscar");
}

TEST_F(Loaded_Module, is_gone_from_the_process_once_it_is_closed)
{
  const std::string path = kestrel_test::lib_dir() + "/oscar.so";
  const auto loaded = [&] {
    void* const handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle)
      ::dlclose(handle);
    return handle != nullptr;
  };
  make<Instance_Handler>("Oscar_Instance_Handler");
  EXPECT_TRUE(loaded());
  loader_.close();
  EXPECT_FALSE(loaded()) << "something holds it, and what it made at its load is never released";
  EXPECT_TRUE(loader_.open(path)) << loader_.error();
  EXPECT_NE(make<Job_Creator>("Oscar_Job_Creator"), nullptr);
}
