#pragma once

#include "base/key_value.h"
#include "json/yajl_handler.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <cstdint>
#include <new>
#include <vector>

/// One open JSON container while a document is parsed.
struct JSON_State {
  bool obj;       // an object, else an array
  uint64_t key;   // bit of the key in force; 0 while none was known
  uint64_t masks; // bits of the keys that got a value
};

namespace oscar
{
/// Codes a parser leaves in error().
enum Document_Error {
  DOCUMENT_ERROR_NO_CONTAINER = 3, // a key or an end without an open container
  DOCUMENT_ERROR_MISSING_KEY = 7,
  DOCUMENT_ERROR_WRONG_VALUE = 9, // a value of the wrong kind or at the wrong depth
};

typedef Key2_Value_T<uint64_t> Document_Key;

/// What the parsers of the job documents have in common: the stack of open containers. A key that the table
/// does not know leaves the key before it in force, so that its value counts as one more value of that key.
/// Documents in use depend on it; writers put unknown keys first or leave them out.
/// Threads: one thread.
/// Errors:  a handler returns false with error() set. T is the base class of the document (Job_Source,
///          Job_Options), D the document.
template <class T, class D> class JSON_Document_Parser_T : public YAJL_Parser<T>
{
public:
  bool handle_start_map_i() override { return push(true); }

  bool handle_end_map_i() override { return pop(); }

protected:
  JSON_Document_Parser_T() : YAJL_Parser<T>(new (std::nothrow) D)
  {
    if (!document())
      errno = ENOMEM;
  }

  /// The document being filled; null when there was no memory for it. The structure is still checked then.
  D* document() { return static_cast<D*>(this->result_.get()); }

  bool fail(Document_Error error)
  {
    this->err_ = error;
    return false;
  }

  size_t depth() const { return states_.size(); }

  JSON_State& top() { return states_.back(); }

  bool push(bool obj)
  {
    states_.push_back({obj, 0, 0});
    return true;
  }

  bool pop()
  {
    if (states_.empty())
      return fail(DOCUMENT_ERROR_NO_CONTAINER);
    states_.pop_back();
    return true;
  }

  /// Puts a known key in force; `keys` is null where no key is known.
  bool enter_key(const Document_Key* keys, char const* text, unsigned length)
  {
    if (states_.empty())
      return fail(DOCUMENT_ERROR_NO_CONTAINER);
    const uint64_t bit = keys ? get_key_value_entry(keys, text, length, uint64_t(0)) : 0;
    if (bit != 0)
      top().key = bit;
    return true;
  }

  /// Checks that the innermost object has the keys of the bits in `needed`, and reports each missing one.
  bool require(const Document_Key* keys, uint64_t needed)
  {
    const uint64_t missing = needed & ~top().masks;
    if (missing == 0)
      return true;
    for (uint64_t bit = 1; bit != 0 && bit <= missing; bit <<= 1) {
      if (missing & bit)
        ACE_ERROR((LM_ERROR, "Failed to parse job definition source, lack of '%s'.\n",
                   get_key_value_entry(keys, bit)));
    }
    return fail(DOCUMENT_ERROR_MISSING_KEY);
  }

  std::vector<JSON_State> states_;
};
} // namespace oscar
