#include "lab/osrimp/contents.h"

#include "lab/common/text.h"
#include "lab/logical/client_program.h"

#include <algorithm>
#include <functional>

namespace oscar_lab
{

namespace
{

/// Types of more than one word; a longer one stands before those that it begins with.
const char* const long_types[] = {"MATERIALIZED VIEW DATA",
                                  "MATERIALIZED VIEW",
                                  "FK CONSTRAINT",
                                  "CHECK CONSTRAINT",
                                  "SEQUENCE OWNED BY",
                                  "SEQUENCE SET",
                                  "TABLE DATA",
                                  "TABLE ATTACH",
                                  "INDEX ATTACH",
                                  "DEFAULT ACL",
                                  "EVENT TRIGGER",
                                  "ROW SECURITY",
                                  "SECURITY LABEL",
                                  "SHELL TYPE",
                                  "FOREIGN TABLE",
                                  "FOREIGN DATA WRAPPER",
                                  "FOREIGN SERVER",
                                  "USER MAPPING",
                                  "PROCEDURAL LANGUAGE",
                                  "OPERATOR CLASS",
                                  "OPERATOR FAMILY",
                                  "ACCESS METHOD",
                                  "TEXT SEARCH PARSER",
                                  "TEXT SEARCH DICTIONARY",
                                  "TEXT SEARCH TEMPLATE",
                                  "TEXT SEARCH CONFIGURATION"};

/// Takes the type off the front of "TYPE SCHEMA NAME OWNER". A table in a schema named DATA looks like a
/// table's rows, but those have no catalog class.
std::string take_type(std::string& text, bool has_class)
{
  for (const std::string type : long_types) {
    const bool is_definition = type != "TABLE DATA" && type != "TABLE ATTACH" && type != "SEQUENCE SET" &&
                               type != "SEQUENCE OWNED BY" && type != "INDEX ATTACH";
    if ((is_definition || !has_class) && starts_with(text, type + " ")) {
      text = text.substr(type.size() + 1);
      return type;
    }
  }
  const auto blank = text.find(' ');
  const std::string type = text.substr(0, blank);
  text = blank == std::string::npos ? std::string() : text.substr(blank + 1);
  return type;
}

/// Lines have blanks for the line ends in names.
std::string as_listed(std::string name)
{
  for (char& c : name)
    if (c == '\n' || c == '\r')
      c = ' ';
  return name;
}

void take_schema(std::string& text, const std::vector<std::string>& schemas, Entry& entry)
{
  std::size_t longest = 0;
  entry.schema = "-";
  for (const std::string& schema : schemas)
    if (schema.size() >= longest && starts_with(text, as_listed(schema) + " ")) {
      longest = schema.size();
      entry.schema = schema;
    }
  const std::size_t taken = entry.schema == "-" ? 2 : longest + 1;
  entry.name = text.size() > taken ? text.substr(taken) : std::string();
}

bool is_one_of(const std::string& text, std::initializer_list<const char*> list)
{
  return std::any_of(list.begin(), list.end(), [&text](const char* entry) { return text == entry; });
}

bool is_kind(const Entry& entry, Object_Kind kind, const Export_Record& record)
{
  switch (kind) {
  case Object_Kind::view:
    return is_one_of(entry.type, {"VIEW", "MATERIALIZED VIEW", "MATERIALIZED VIEW DATA"});
  case Object_Kind::procedure:
    return is_one_of(entry.type, {"FUNCTION", "PROCEDURE", "AGGREGATE"});
  case Object_Kind::constraint:
    return is_one_of(entry.type, {"CONSTRAINT", "FK CONSTRAINT", "CHECK CONSTRAINT"});
  case Object_Kind::trigger:
    return is_one_of(entry.type, {"TRIGGER", "EVENT TRIGGER"});
  case Object_Kind::index:
    return is_one_of(entry.type, {"INDEX", "INDEX ATTACH"});
  case Object_Kind::sequence:
    break;
  }
  if (!is_one_of(entry.type, {"SEQUENCE", "SEQUENCE SET"}))
    return false;
  return std::any_of(
      record.free_sequences.begin(), record.free_sequences.end(), [&entry](const auto& sequence) {
        return entry.schema == sequence.first && starts_with(entry.name, as_listed(sequence.second) + " ");
      });
}

/// A comment, privilege, label or rule of an object that is left out: its name begins with the object's,
/// behind a word for the object's kind.
bool belongs_to(const Entry& entry, const Entry& gone)
{
  if (entry.schema != gone.schema)
    return false;
  if (is_one_of(entry.type, {"RULE", "TRIGGER", "DEFAULT"}))
    return is_one_of(gone.type, {"VIEW", "MATERIALIZED VIEW"}) &&
           starts_with(entry.name, gone.name.substr(0, gone.name.rfind(' ') + 1));
  if (!is_one_of(entry.type, {"COMMENT", "ACL", "SECURITY LABEL"}))
    return false;
  const std::string bare_name = gone.name.substr(0, gone.name.rfind(' '));
  for (const std::string word : {"TABLE ", "VIEW ", "MATERIALIZED VIEW ", "SEQUENCE ", "FUNCTION ",
                                 "PROCEDURE ", "AGGREGATE ", "INDEX "})
    if (starts_with(entry.name, word + bare_name + " "))
      return true;
  if (starts_with(entry.name, "COLUMN ") && is_one_of(gone.type, {"VIEW", "MATERIALIZED VIEW"}))
    return starts_with(entry.name, "COLUMN " + bare_name + ".");
  if (is_one_of(gone.type, {"CONSTRAINT", "FK CONSTRAINT", "CHECK CONSTRAINT", "TRIGGER"})) {
    // Listed as "TABLE NAME" itself, and as "CONSTRAINT NAME ON TABLE" in its comment.
    for (std::size_t blank = bare_name.find(' '); blank != std::string::npos;
         blank = bare_name.find(' ', blank + 1)) {
      const std::string on = bare_name.substr(blank + 1) + " ON ";
      for (const std::string word : {"CONSTRAINT ", "TRIGGER "})
        if (starts_with(entry.name, word + on))
          return true;
    }
  }
  return false;
}

/// Without the entries that leave() names, and what belongs to those only.
std::vector<Entry> without(const std::vector<Entry>& entries, const std::function<bool(const Entry&)>& leave)
{
  std::vector<Entry> kept, gone;
  for (const Entry& entry : entries)
    (leave(entry) ? gone : kept).push_back(entry);
  kept.erase(std::remove_if(kept.begin(), kept.end(),
                            [&gone](const Entry& entry) {
                              return std::any_of(gone.begin(), gone.end(), [&entry](const Entry& object) {
                                return belongs_to(entry, object);
                              });
                            }),
             kept.end());
  return kept;
}

} // namespace

std::vector<Entry> list_contents(int file, const Export_Record& record, const Login& login)
{
  const std::string listing = output_of("pg_restore", {"--list", path_of_inherited(file)}, login, {file});
  std::vector<Entry> entries;
  for (const std::string& line : split_lines(listing)) {
    const auto id_end = line.find("; ");
    if (line.empty() || line[0] == ';' || id_end == std::string::npos)
      continue;
    const auto class_end = line.find(' ', id_end + 2);
    const auto oid_end = class_end == std::string::npos ? class_end : line.find(' ', class_end + 1);
    if (oid_end == std::string::npos)
      throw Failure("the list of the file's contents is not understood");
    Entry entry;
    entry.line = line;
    std::string rest = line.substr(oid_end + 1);
    entry.type = take_type(rest, line.substr(id_end + 2, class_end - id_end - 2) != "0");
    take_schema(rest, record.schemas, entry);
    entries.push_back(entry);
  }
  return entries;
}

std::vector<Entry> without_kinds(const std::vector<Entry>& entries, const std::set<Object_Kind>& left_out,
                                 const Export_Record& record)
{
  return without(entries, [&](const Entry& entry) {
    return std::any_of(left_out.begin(), left_out.end(),
                       [&](Object_Kind kind) { return is_kind(entry, kind, record); });
  });
}

std::vector<Entry> without_keyed_views(const std::vector<Entry>& entries, const Export_Record& record)
{
  return without(entries, [&record](const Entry& entry) {
    if (!is_kind(entry, Object_Kind::view, record))
      return false;
    return std::any_of(record.keyed_views.begin(), record.keyed_views.end(), [&entry](const auto& view) {
      return entry.schema == view.first && starts_with(entry.name, as_listed(view.second) + " ");
    });
  });
}

bool is_reference(const Entry& entry, const char* type, const Reference& reference)
{
  return entry.type == type && entry.schema == reference.schema &&
         starts_with(entry.name, as_listed(reference.table) + " " + as_listed(reference.name) + " ");
}

} // namespace oscar_lab
