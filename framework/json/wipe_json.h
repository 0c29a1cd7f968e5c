#pragma once

#include "json/value.h"

namespace kestrel
{
/// Overwrites every text of a document, for documents that may hold a password and have been used. Names
/// stay. Limits: nothing is known of copies; a text that is short enough to be kept inside of its value
/// leaves one behind
///         wherever the value was moved away from. What read_json() moves while a document grows it wipes
///         itself.
void wipe_json(json_spirit::Value& value) noexcept;
void wipe_json(json_spirit::Object& object) noexcept;

/// Wipes a document when it goes out of scope. The document is not owned and must outlive the guard.
template <class Document> class Wipe_JSON_Guard
{
public:
  explicit Wipe_JSON_Guard(Document& document) : document_(document) {}
  ~Wipe_JSON_Guard() { wipe_json(document_); }
  Wipe_JSON_Guard(const Wipe_JSON_Guard&) = delete;
  Wipe_JSON_Guard& operator=(const Wipe_JSON_Guard&) = delete;

private:
  Document& document_;
};
} // namespace kestrel
