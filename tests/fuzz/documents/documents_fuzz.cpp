#include "base/ignore_result.h"
#include "jobs/job_definition_loader.h"
#include "oscar/backup_job_options_parser.h"
#include "oscar/backup_job_source_parser.h"
#include "oscar/backup_source_collector.h"
#include "oscar/module_entry.h"
#include "oscar/restore_job_options_parser.h"
#include "oscar/restore_job_source_parser.h"
#include "support/corpus.h"
#include "json/json_util.h"
#include "json/yajl_gen.h"

#include <cstdlib>
#include <string>

namespace
{
void check(bool holds)
{
  if (!holds)
    ::abort();
}

template <class Document> std::string text_of(Document& document)
{
  kestrel::Json_Generator generator;
  check(document.generate(generator.handle()) == 0);
  json_spirit::Value value;
  std::string error;
  check(kestrel::read_json(generator.text(), value, error));
  return generator.text();
}

/// A document is refused with a text or becomes an object that writes itself as JSON. Gives the text, empty
/// when refused.
template <class Parser> std::string parse(const std::string& text)
{
  Parser parser;
  std::string error;
  if (!kestrel::dispatch_json(text, kestrel::json_network_limits(), kestrel::Json_Top::object, parser,
                              error)) {
    check(!error.empty());
    return std::string();
  }
  check(parser.error() == 0 && !parser.result().null());
  return text_of(*parser.result());
}

void parse_backup_source(const std::string& text)
{
  const std::string written = parse<oscar::Backup_Job_Source_Parser>(text);
  if (written.find("\"entries\":[") != std::string::npos)
    check(parse<oscar::Backup_Job_Source_Parser>(written) == written);
}

void collect(const std::string& text)
{
  oscar::Backup_Source_Collector collector;
  kestrel::ignore_result(collector.collect({"oscar/" + text, "oscar" + text, text}),
                         "any entry may be refused");
  check(!collector.sources().empty());
}

void load(const std::string& text)
{
  typedef Object_Creator_T<YAJL_Handler> Creator;
  static Creator* const backup_source = _make_Oscar_Backup_Job_Source_Parser_Creator(nullptr);
  static Creator* const backup_options = _make_Oscar_Backup_Job_Options_Parser_Creator(nullptr);
  static Creator* const restore_source = _make_Oscar_Restore_Job_Source_Parser_Creator(nullptr);
  static Creator* const restore_options = _make_Oscar_Restore_Job_Options_Parser_Creator(nullptr);
  kestrel::Job_Definition_Loader loader;
  loader.add_parsers(JOB_DEFINITION_BACKUP, backup_source, backup_options);
  loader.add_parsers(JOB_DEFINITION_RESTORE, restore_source, restore_options);
  Job_Definition_Ptr definition;
  std::string error;
  if (!loader.load(text, definition, error)) {
    check(!error.empty() && definition.null());
    return;
  }
  std::string written;
  check(kestrel::Job_Definition_Loader::generate(*definition, written, error));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string text(reinterpret_cast<const char*>(data), size);
  parse_backup_source(text);
  parse<oscar::Backup_Job_Options_Parser>(text);
  parse<oscar::Restore_Job_Source_Parser>(text);
  const std::string options = parse<oscar::Restore_Job_Options_Parser>(text);
  check(options.empty() || options == "{}");
  collect(text);
  load(text);
  return 0;
}
