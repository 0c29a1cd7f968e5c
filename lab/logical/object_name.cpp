#include "lab/logical/object_name.h"

#include "lab/common/text.h"

namespace oscar_lab
{

namespace
{

Name_Word next_word(const std::string& text, std::size_t& position, const std::string& what)
{
  Name_Word word;
  if (position < text.size() && text[position] == '"') {
    word.quoted = true;
    for (++position;; ++position) {
      if (position >= text.size())
        throw Usage_Failure("a quoted name in " + what + " has no end");
      if (text[position] == '"' && text.compare(position, 2, "\"\"") != 0)
        break;
      if (text[position] == '"')
        ++position;
      word.text += text[position];
    }
    ++position;
  } else {
    while (position < text.size() && text[position] != '.' && text[position] != '"')
      word.text += text[position++];
  }
  if (position < text.size() && text[position] != '.')
    throw Usage_Failure("a name in " + what + " is quoted in part only");
  if (word.text.empty())
    throw Usage_Failure("a name in " + what + " is empty");
  return word;
}

} // namespace

std::vector<Name_Word> parse_names(const std::string& text, const std::string& what)
{
  std::vector<Name_Word> words;
  std::size_t position = 0;
  words.push_back(next_word(text, position, what));
  while (position < text.size()) {
    ++position; // the dot
    words.push_back(next_word(text, position, what));
  }
  return words;
}

std::vector<std::string> stored_names(const Name_Word& word)
{
  const std::string lower = to_lower(word.text);
  const std::string upper = to_upper(word.text);
  if (word.quoted || (word.text != lower && word.text != upper))
    return {word.text};
  if (word.text == upper)
    return {lower};
  return {upper, lower};
}

std::string shown_name(const std::string& stored)
{
  const std::string upper = to_upper(stored);
  return stored == to_lower(stored) ? upper : stored == upper ? to_lower(stored) : stored;
}

} // namespace oscar_lab
