#pragma once

#include <boost/regex.hpp>

#include <exception>
#include <string>

/// Matching of text that a tool, a file or another process wrote.
///
/// Boost.Regex gives up on pathological input (for example a hundred thousand blanks against a pattern with
/// two adjoining repeats) by throwing. Such text is not worth more than "no match", and the exception must
/// not escape on the thread that reads a child's output, so both helpers turn it into false.
/// Threads: any number, the patterns are only read.
namespace oscar
{
/// True when the whole of TEXT matches.
template <class Iterator>
[[nodiscard]] bool guarded_regex_match(Iterator begin, Iterator end, boost::match_results<Iterator>& groups,
                                       const boost::regex& pattern)
{
  try {
    return boost::regex_match(begin, end, groups, pattern);
  } catch (const std::exception&) {
    groups = boost::match_results<Iterator>();
    return false;
  }
}

[[nodiscard]] inline bool guarded_regex_match(const std::string& text, boost::smatch& groups,
                                              const boost::regex& pattern)
{
  return guarded_regex_match(text.begin(), text.end(), groups, pattern);
}

/// True when PATTERN occurs anywhere in the text.
template <class Iterator>
[[nodiscard]] bool guarded_regex_search(Iterator begin, Iterator end, boost::match_results<Iterator>& groups,
                                        const boost::regex& pattern)
{
  try {
    return boost::regex_search(begin, end, groups, pattern);
  } catch (const std::exception&) {
    groups = boost::match_results<Iterator>();
    return false;
  }
}
} // namespace oscar
