#include "jobs/job_definition_loader.h"

#include "oscar/backup_job_options_parser.h"
#include "oscar/backup_job_source_parser.h"
#include "oscar/restore_job_options_parser.h"
#include "oscar/restore_job_source_parser.h"
#include "support/fault_file_system.h"
#include "unit/jobs/job_fixture.h"
#include "json/json_util.h"
#include "json/object_creator.h"
#include "json/yajl_handler.h"

#include <cerrno>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Pair;
using json_spirit::Value;
using kestrel::Job_Definition_Loader;

namespace kestrel_test
{
namespace
{
template <class Parser> using Creator = Object_Creator_Impl_T<Object_Creator_T<YAJL_Handler>, Parser>;

/// A parser that keeps the name, and fails with the code that the key "fail" gives.
class Source_Parser : public YAJL_Parser<Job_Source>
{
public:
  Source_Parser() : YAJL_Parser(new Plain_Source) { ++alive; }
  ~Source_Parser() override { --alive; }
  bool handle_map_key_i(char const* text, unsigned length) override
  {
    key_.assign(text, length);
    return true;
  }
  bool handle_string_i(char const* text, unsigned length) override
  {
    if (key_ == "id") {
      result_->id(std::string(text, length));
    }
    return true;
  }
  bool handle_number_i(char const* text, unsigned length) override
  {
    err_ = std::stoi(std::string(text, length));
    return err_ == 0;
  }
  static int alive;

private:
  std::string key_;
};

int Source_Parser::alive = 0;

class Options_Parser : public YAJL_Parser<Job_Options>
{
public:
  Options_Parser() : YAJL_Parser(new Plain_Options) {}
};

class Null_Creator : public Object_Creator_T<YAJL_Handler>
{
public:
  YAJL_Handler* create() override { return nullptr; }
  void destroy(YAJL_Handler*) override {}
};

Object minimal()
{
  return Object{Pair("id", DEFINITION_ID), Pair("uid", USER_ID), Pair("type", "backup"),
                Pair("target", Object{Pair("id", "pool-1")})};
}

Value with(const std::string& key, Value value)
{
  Object object = minimal();
  kestrel::set_value(object, key, std::move(value));
  return object;
}

Value without(const std::string& key)
{
  Object object;
  for (const Pair& member : minimal()) {
    if (member.name_ != key) {
      object.push_back(member);
    }
  }
  return object;
}
} // namespace

class Job_Loader : public testing::Test
{
protected:
  Job_Loader()
  {
    loader_.add_parsers(JOB_DEFINITION_BACKUP, &source_, &options_);
    loader_.add_parsers(JOB_DEFINITION_BACKUP, JOB_DEFINITION_SUBTYPE_EXPORT, nullptr, nullptr);
  }
  ~Job_Loader() override { EXPECT_EQ(0, Source_Parser::alive); }

  Job_Definition_Ptr load(const std::string& text)
  {
    Job_Definition_Ptr definition;
    std::string error;
    EXPECT_TRUE(loader_.load(text, definition, error)) << error;
    return definition;
  }
  Job_Definition_Ptr load(const Value& value) { return load(kestrel::write_json(value)); }

  /// The error text; the result must be left alone.
  std::string refusal(const std::string& text)
  {
    const Job_Definition_Ptr before = make_definition();
    Job_Definition_Ptr definition = before;
    std::string error;
    EXPECT_FALSE(loader_.load(text, definition, error)) << text;
    EXPECT_EQ(before.get(), definition.get());
    EXPECT_NE("", error);
    return error;
  }
  std::string refusal(const Value& value) { return refusal(kestrel::write_json(value)); }

  Creator<Source_Parser> source_;
  Creator<Options_Parser> options_;
  Job_Definition_Loader loader_;
};

TEST_F(Job_Loader, reads_a_definition_with_the_least_that_it_needs)
{
  const Job_Definition_Ptr def = load(minimal());
  EXPECT_EQ(DEFINITION_ID, def->id());
  EXPECT_EQ(USER_ID, def->uid());
  EXPECT_EQ(JOB_DEFINITION_BACKUP, def->type());
  EXPECT_EQ(JOB_DEFINITION_SUBTYPE_NONE, def->subtype());
  EXPECT_EQ("pool-1", def->target().id());
  EXPECT_EQ(nullptr, def->source());
  EXPECT_NE(nullptr, def->options()); // as an empty document gives them
  EXPECT_TRUE(def->schedules().empty());
}

TEST_F(Job_Loader, reads_every_member)
{
  const Job_Definition_Ptr def =
      load(std::string(R"({"id":")") + DEFINITION_ID + R"(","uid":")" + USER_ID + R"(",
    "name":"nightly","agent":"a1","host_id":"h1","type":1,"subtype":"incr","rsrc_form":"cluster","periodic":true,
    "target":{"id":"p","device_id":"d"},"source":{"id":"src-1"},"options":{},
    "max_seconds_retry":30,"resumption_buffer_size":4294967295,"rate_limits":{"write":18446744073709551615,"read":2},
    "server_side_dedup":true,"backup_protection_password":"secret","precondition":"a","pre_action":"b","post_action":"c",
    "ignore_pre_action_failure":true,"ignore_post_action_failure":true,"run_post_action_always":true,
    "schedules":[{"type":7},{"type":1,"at":"02:00"}],"some_later_key":[1,2,3]})");
  EXPECT_EQ("nightly", def->name());
  EXPECT_EQ("a1", def->agent());
  EXPECT_EQ("h1", def->host_id());
  EXPECT_EQ(JOB_DEFINITION_SUBTYPE_INCREMENTAL, def->subtype());
  EXPECT_EQ("cluster", def->rsrc_form());
  EXPECT_TRUE(def->periodic());
  EXPECT_EQ("d", def->target().device_id());
  ASSERT_NE(nullptr, def->source());
  EXPECT_EQ("src-1", def->source()->id());
  EXPECT_EQ(30u, def->max_seconds_retry());
  EXPECT_EQ(4294967295u, def->resumption_buffer_size());
  EXPECT_EQ(18446744073709551615u, def->rate_limits().write_limit());
  EXPECT_EQ(2u, def->rate_limits().read_limit());
  EXPECT_TRUE(def->server_side_dedup());
  EXPECT_EQ("secret", def->backup_protection_password());
  EXPECT_EQ("a", def->precondition());
  EXPECT_EQ("b", def->pre_action());
  EXPECT_EQ("c", def->post_action());
  EXPECT_TRUE(def->ignore_pre_action_failure());
  EXPECT_TRUE(def->ignore_post_action_failure());
  EXPECT_TRUE(def->run_post_action_always());
  ASSERT_EQ(2u, def->schedules().size());
  EXPECT_EQ(7, def->schedules()[0]->type());
  EXPECT_EQ(1, def->schedules()[1]->type());
}

TEST_F(Job_Loader, takes_types_and_levels_by_name_and_by_number)
{
  EXPECT_EQ(JOB_DEFINITION_RESTORE, load(with("type", "restore"))->type());
  EXPECT_EQ(JOB_DEFINITION_STORAGE, load(with("type", 4))->type());
  EXPECT_EQ(35, load(with("subtype", 35))->subtype());
  const struct {
    const char* name;
    int value;
  } names[] = {{"none", 0},       {"full", 1},         {"incr", 2},   {"incremental", 2},    {"diff", 3},
               {"cumulative", 3}, {"differential", 3}, {"export", 5}, {"point_in_time", 13}, {"import", 14}};
  for (const auto& name : names) {
    EXPECT_EQ(name.value, load(with("subtype", name.name))->subtype()) << name.name;
  }
}

TEST_F(Job_Loader, says_which_key_it_refuses_and_why)
{
  const struct {
    Value value;
    const char* error;
  } cases[] = {
      {without("id"), "\"id\": is missing"},
      {with("id", ""), "\"id\": is missing"},
      {with("id", nullptr), "\"id\": is missing"},
      {with("id", "nightly"), "\"id\": is not a uuid"},
      {with("id", "../../etc/passwd"), "\"id\": is not a uuid"},
      {with("id", 5), "\"id\": must be a text"},
      {without("uid"), "\"uid\": is missing"},
      {with("uid", "root"), "\"uid\": is not a uuid"},
      {without("type"), "\"type\": is missing"},
      {with("type", "dump"), "\"type\": unknown name; known are none, backup, restore"},
      {with("type", true), "\"type\": must be a name or a number"},
      {with("type", -1), "\"type\": the number is out of range"},
      {with("type", int64_t(1) << 40), "\"type\": the number is out of range"},
      {with("type", 18446744073709551615u), "\"type\": the number is out of range"},
      {with("subtype", "weekly"), "\"subtype\": unknown name"},
      {with("subtype", 1.5), "\"subtype\": must be a name or a number"},
      {without("target"), "\"target\": is missing"},
      {with("target", "pool-1"), "\"target\": must be an object"},
      {with("target", Object()), "\"target.id\": is missing or empty"},
      {with("target", Object{Pair("id", "")}), "\"target.id\": is missing or empty"},
      {with("target", Object{Pair("id", 1)}), "\"target.id\": must be a text"},
      {with("target", Object{Pair("id", "p"), Pair("device_id", Array())}),
       "\"target.device_id\": must be a text"},
      {with("name", 1), "\"name\": must be a text"},
      {with("periodic", "yes"), "\"periodic\": must be true or false"},
      {with("max_seconds_retry", -1), "\"max_seconds_retry\": must be a whole number"},
      {with("max_seconds_retry", 4294967296), "\"max_seconds_retry\": must be a whole number"},
      {with("resumption_buffer_size", "1M"), "\"resumption_buffer_size\": must be a whole number"},
      {with("rate_limits", 5), "\"rate_limits\": must be an object"},
      {with("rate_limits", Object{Pair("write", "fast")}), "\"rate_limits.write\": must be a whole number"},
      {with("schedules", Object()), "\"schedules\": must be an array"},
      {with("schedules", Array{Value(7)}), "\"schedules\": each schedule must be an object"},
      {with("schedules", Array{Value(Object())}), "\"schedules\": each schedule must be an object"},
      {with("post_action", Array()), "\"post_action\": must be a text"},
  };
  for (const auto& c : cases) {
    EXPECT_NE(std::string::npos, refusal(c.value).find(c.error)) << refusal(c.value) << "\nnot: " << c.error;
  }
}

TEST_F(Job_Loader, refuses_texts_with_a_nul_wherever_they_stand)
{
  const std::string nul("a\0b", 3);
  EXPECT_EQ("job definition, \"name\": the text contains a NUL character", refusal(with("name", nul)));
  EXPECT_EQ("job definition, \"target.id\": the text contains a NUL character",
            refusal(with("target", Object{Pair("id", nul)})));
  EXPECT_EQ("job definition, \"source.entries\": the text contains a NUL character",
            refusal(with("source", Object{Pair("entries", Array{Value(nul)})})));
  EXPECT_EQ("job definition, \"top level\": a key contains a NUL character", refusal(with(nul, 1)));
  EXPECT_NE(std::string::npos, refusal(with("id", std::string(DEFINITION_ID) + '\0')).find("\"id\""));
}

TEST_F(Job_Loader, refuses_what_is_not_one_json_object)
{
  for (const char* const text : {"", " ", "[]", "\"text\"", "5", "null", "{", "{\"id\":}", "{} {}",
                                 "{\"a\":1,}", "{\"id\":\"\xff\"}", "<xml/>"}) {
    refusal(std::string(text));
  }
  EXPECT_EQ("job definition: must be one JSON object", refusal(std::string("[]")));
}

TEST_F(Job_Loader, refuses_a_key_that_stands_there_twice)
{
  Object object = minimal();
  object.push_back(Pair("id", USER_ID));
  EXPECT_EQ("job definition, \"id\": the key stands there twice", refusal(object));
}

TEST_F(Job_Loader, refuses_documents_beyond_its_limits)
{
  std::string deep = kestrel::write_json(minimal());
  deep.pop_back();
  deep += ",\"x\":" + std::string(64, '[') + std::string(64, ']') + "}";
  EXPECT_NE(std::string::npos, refusal(deep).find("64"));
  std::string text = kestrel::write_json(minimal());
  text += std::string(Job_Definition_Loader::NETWORK_LIMIT_BYTES, ' ');
  EXPECT_NE(std::string::npos, refusal(text).find("16777216"));
  Job_Definition_Ptr definition;
  std::string error;
  EXPECT_TRUE(loader_.load(text, definition, error, Job_Definition_Loader::FILE_LIMIT_BYTES)) << error;
}

TEST_F(Job_Loader, tells_why_a_document_failed)
{
  EXPECT_EQ("job definition, \"source\": a required key is missing (the log names it)",
            refusal(with("source", Object{Pair("fail", 7)})));
  EXPECT_EQ("job definition, \"source\": a value is of the wrong kind, or not in its place",
            refusal(with("source", Object{Pair("fail", 9)})));
  EXPECT_EQ("job definition, \"source\": a value stands outside of every object and array",
            refusal(with("source", Object{Pair("fail", 3)})));
  EXPECT_EQ("job definition, \"source\": refused by its parser with code 77",
            refusal(with("source", Object{Pair("fail", 77)})));
  EXPECT_NE(std::string::npos, refusal(with("source", Array())).find("\"source\": "));
  EXPECT_NE(std::string::npos, refusal(with("options", 5)).find("\"options\": "));
}

TEST_F(Job_Loader, refuses_documents_that_nobody_can_read)
{
  Object object = minimal();
  kestrel::set_value(object, "type", "restore");
  kestrel::set_value(object, "source", Object());
  EXPECT_EQ("job definition, \"source\": no module reads it for jobs of type restore", refusal(object));
  object = minimal();
  kestrel::set_value(object, "subtype", "export"); // its own parsers, and these are none
  kestrel::set_value(object, "options", Object());
  EXPECT_EQ("job definition, \"options\": no module reads it for jobs of type backup", refusal(object));
}

TEST_F(Job_Loader, refuses_parsers_that_do_not_fit)
{
  Null_Creator none;
  Job_Definition_Loader loader;
  loader.add_parsers(JOB_DEFINITION_BACKUP, &options_, &none);
  Job_Definition_Ptr definition;
  std::string error;
  EXPECT_FALSE(loader.load(kestrel::write_json(with("source", Object())), definition, error));
  EXPECT_EQ("job definition, \"source\": its parser is of another kind", error);
  EXPECT_FALSE(loader.load(kestrel::write_json(minimal()), definition, error));
  EXPECT_EQ("job definition, \"options\": no memory for its parser", error);
}

TEST_F(Job_Loader, never_quotes_the_document_in_an_error)
{
  EXPECT_EQ(std::string::npos,
            refusal(std::string("{\"backup_protection_password\":\"hunter2\"")).find("hunter2"));
  EXPECT_EQ(std::string::npos,
            refusal(with("backup_protection_password", Array{Value("hunter2")})).find("hunter2"));
}

TEST_F(Job_Loader, writes_a_definition_that_reads_back_the_same)
{
  Object object = minimal();
  kestrel::set_value(object, "name", "n\"\xc3\xa4");
  kestrel::set_value(object, "subtype", 35);
  kestrel::set_value(object, "source", Object{Pair("id", "src-1")});
  kestrel::set_value(object, "periodic", true);
  kestrel::set_value(object, "max_seconds_retry", 7);
  kestrel::set_value(object, "rate_limits", Object{Pair("write", 18446744073709551615u)});
  kestrel::set_value(object, "run_post_action_always", true);
  kestrel::set_value(object, "post_action", "echo\ndone");
  kestrel::set_value(object, "schedules",
                     Array{Value(Object{Pair("type", 7), Pair("x", Array{Value(1.5)})})});
  const Job_Definition_Ptr def = load(object);
  std::string text, error;
  ASSERT_TRUE(Job_Definition_Loader::generate(*def, text, error)) << error;
  const Job_Definition_Ptr again = load(text);
  EXPECT_EQ("n\"\xc3\xa4", again->name());
  EXPECT_EQ(35, again->subtype());
  EXPECT_EQ("src-1", again->source()->id());
  EXPECT_TRUE(again->periodic());
  EXPECT_EQ(7u, again->max_seconds_retry());
  EXPECT_EQ(18446744073709551615u, again->rate_limits().write_limit());
  EXPECT_EQ("echo\ndone", again->post_action());
  EXPECT_EQ(def->schedules()[0]->text(), again->schedules()[0]->text());
  std::string second;
  ASSERT_TRUE(Job_Definition_Loader::generate(*again, second, error)) << error;
  EXPECT_EQ(text, second);
}

TEST_F(Job_Loader, hides_a_protection_password_but_not_that_there_is_one)
{
  const Job_Definition_Ptr def = load(with("backup_protection_password", "hunter2"));
  std::string text, error;
  ASSERT_TRUE(Job_Definition_Loader::generate(*def, text, error)) << error;
  EXPECT_EQ(std::string::npos, text.find("hunter2"));
  EXPECT_NE("", load(text)->backup_protection_password());
}

TEST_F(Job_Loader, writes_schedules_that_code_has_made)
{
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.schedules.push_back(Job_Schedule_Ptr(new Job_Schedule(7)));
  std::string text, error;
  ASSERT_TRUE(Job_Definition_Loader::generate(*make_definition(fields), text, error)) << error;
  EXPECT_EQ(7, load(text)->schedules().at(0)->type());
}

TEST_F(Job_Loader, says_when_a_document_cannot_be_written)
{
  struct Broken : Plain_Source {
    int generate(yajl_gen_t*) const override { return -1; }
  };
  kestrel::Job_Definition_Fields fields = plain_fields();
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(new Broken);
  std::string text = "before", error;
  EXPECT_FALSE(Job_Definition_Loader::generate(*make_definition(fields), text, error));
  EXPECT_EQ("the source document cannot be written", error);
  EXPECT_EQ("before", text);
}

TEST_F(Job_Loader, reads_files_and_names_them_in_its_errors)
{
  const Temp_Dir dir;
  Job_Definition_Ptr definition;
  std::string error;
  EXPECT_TRUE(loader_.load_file(dir.write("good.json", kestrel::write_json(minimal())), definition, error))
      << error;
  EXPECT_EQ(DEFINITION_ID, definition->id());
  EXPECT_FALSE(loader_.load_file(dir / "none.json", definition, error));
  EXPECT_EQ(dir / "none.json" + ": No such file or directory", error);
  EXPECT_FALSE(loader_.load_file(dir.write("bad.json", "{}"), definition, error));
  EXPECT_EQ(dir / "bad.json" + ": job definition, \"type\": is missing", error);
  EXPECT_FALSE(loader_.load_file(dir.path(), definition, error));
  EXPECT_EQ(dir.path() + ": Is a directory", error);
}

TEST_F(Job_Loader, reports_a_file_that_fails_while_it_is_read)
{
  const Temp_Dir dir;
  const std::string path = dir.write("good.json", kestrel::write_json(minimal()));
  for (unsigned call = 1; call <= 2; ++call) {
    Fault_File_System files;
    files.fail("read", call, EIO);
    Job_Definition_Ptr definition;
    std::string error;
    EXPECT_FALSE(loader_.load_file(path, definition, error));
    EXPECT_EQ(path + ": Input/output error", error);
    files.fail("read", call, EINTR);
    EXPECT_TRUE(loader_.load_file(path, definition, error)) << error;
  }
}

TEST_F(Job_Loader, stops_reading_a_file_at_the_limit)
{
  const Temp_Dir dir;
  const std::string path = dir.write("huge.json", "");
  ASSERT_EQ(0, ::truncate(path.c_str(), Job_Definition_Loader::FILE_LIMIT_BYTES + 1));
  Job_Definition_Ptr definition;
  std::string error;
  EXPECT_FALSE(loader_.load_file(path, definition, error));
  EXPECT_EQ(path + ": longer than the limit of 64 MiB", error);
}

TEST(Job_Loader_With_Module, reads_and_writes_the_documents_of_the_module)
{
  Creator<oscar::Backup_Job_Source_Parser> backup_source;
  Creator<oscar::Backup_Job_Options_Parser> backup_options;
  Creator<oscar::Restore_Job_Source_Parser> restore_source;
  Creator<oscar::Restore_Job_Options_Parser> restore_options;
  Job_Definition_Loader loader;
  loader.add_parsers(JOB_DEFINITION_BACKUP, &backup_source, &backup_options);
  loader.add_parsers(JOB_DEFINITION_RESTORE, &restore_source, &restore_options);
  const Value documents[] = {
      with("source", Object{Pair("id", "s1"), Pair("name", "db"), Pair("entries", Array{Value("/OSRDB")})}),
      with("type", "restore")};
  for (Value document : documents) {
    if (find_value(document.get_obj(), "source").is_null()) {
      kestrel::set_value(document.get_obj(), "source",
                         Object{Pair("id", "s1"), Pair("seq", 18446744073709551615u), Pair("pool_uuid", "p"),
                                Pair("original", Object{Pair("database", "OSRDB")}),
                                Pair("restore_as", Object{Pair("database", "OSRDB")})});
    }
    Job_Definition_Ptr definition;
    std::string error, text, again;
    ASSERT_TRUE(loader.load(kestrel::write_json(document), definition, error)) << error;
    EXPECT_EQ("s1", definition->source()->id());
    ASSERT_TRUE(Job_Definition_Loader::generate(*definition, text, error)) << error;
    ASSERT_TRUE(loader.load(text, definition, error)) << error << text;
    ASSERT_TRUE(Job_Definition_Loader::generate(*definition, again, error)) << error;
    EXPECT_EQ(text, again);
  }
}
} // namespace kestrel_test
