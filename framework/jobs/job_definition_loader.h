#pragma once

#include "jobs/job_definition.h"
#include "json/value.h"

#include <map>
#include <string>
#include <utility>

class YAJL_Handler;
template <class T> class Object_Creator_T;

namespace kestrel
{
/// Turns the JSON text of a job definition into a Job_Definition and back.
///
/// A definition is one JSON object whose keys are the accessor names of Job_Definition; "type" and "subtype"
/// are numbers or names; "target" is an object with "id" and "device_id"; "source" and "options" are handed,
/// as they stand, to the parsers of the module that runs such a job. Keys that are not known are ignored.
///
/// Threads:   add the parsers first; load() may then be called from any thread.
/// Ownership: the parser creators are not owned and must outlive the loader.
/// Errors:    false = refused; error names the key and the reason, out is untouched.
class Job_Definition_Loader
{
public:
  typedef Object_Creator_T<YAJL_Handler> Parser_Creator;

  /// Largest text accepted from the network and from a file that an operator names, in bytes.
  static constexpr std::size_t NETWORK_LIMIT_BYTES = 16u << 20;
  static constexpr std::size_t FILE_LIMIT_BYTES = 64u << 20;
  /// Deepest nesting accepted.
  static constexpr unsigned DEPTH_LIMIT = 64;

  /// The parsers for definitions of one type and any subtype. Either may be null: such a document is then
  /// refused.
  void add_parsers(Job_Definition_Type type, Parser_Creator* source, Parser_Creator* options);
  /// The same for one subtype; goes before the parsers of the type.
  void add_parsers(Job_Definition_Type type, Job_Definition_Subtype subtype, Parser_Creator* source,
                   Parser_Creator* options);

  [[nodiscard]] bool load(const std::string& text, Job_Definition_Ptr& out, std::string& error,
                          std::size_t limit_bytes = NETWORK_LIMIT_BYTES) const;
  [[nodiscard]] bool load_file(const std::string& path, Job_Definition_Ptr& out, std::string& error) const;

  /// The definition as JSON text that load() accepts; members that have their default value are left out, and
  /// a protection password is replaced by "***": only whether there is one matters to a job.
  [[nodiscard]] static bool generate(const Job_Definition& definition, std::string& text, std::string& error);

private:
  struct Parsers {
    Parser_Creator* source = nullptr;
    Parser_Creator* options = nullptr;
  };

  Parsers find_parsers(Job_Definition_Type type, Job_Definition_Subtype subtype) const;
  void load_documents(const json_spirit::Object& object, Job_Definition_Fields& fields) const;

  std::map<int, Parsers> by_type_;
  std::map<std::pair<int, int>, Parsers> by_subtype_;
};
} // namespace kestrel
