/// Names of schemas and tables as OSCAR's command lines write them, and as the database keeps them.
///
/// OSCAR shows unquoted names in upper case, PostgreSQL keeps them in lower case. A word without quotes
/// stands for the object that the catalog views show under exactly that name; failing that, upper and lower
/// case mean the same. A name in double quotes is meant as it stands ("" inside is one quote).
///
/// Threads: pure functions. Errors: Usage_Failure without the text that was typed.
#pragma once

#include <string>
#include <vector>

namespace oscar_lab
{

struct Name_Word {
  std::string text; // without the quotes
  bool quoted = false;
};

/// Splits "A.B" or "\"a.b\".C" at the dots outside quotes; what names the parameter in messages.
std::vector<Name_Word> parse_names(const std::string& text, const std::string& what);

/// The database's names that the word can stand for, the likeliest first. The last one is the name of a new
/// object.
std::vector<std::string> stored_names(const Name_Word& word);

/// The stored name as OSCAR's catalog shows it; for messages.
std::string shown_name(const std::string& stored);

} // namespace oscar_lab
