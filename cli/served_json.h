#pragma once

#include "json/value.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace kestrel
{
/// Reading what a server of another version may have left out. Plain functions; any thread; never fail: what
/// is missing or of another type counts as empty.

std::string text_in(const json_spirit::Object& object, const char* key);
int64_t number_in(const json_spirit::Object& object, const char* key);
bool flag_in(const json_spirit::Object& object, const char* key);
json_spirit::Object object_in(const json_spirit::Object& object, const char* key);
json_spirit::Array array_in(const json_spirit::Object& object, const char* key);
/// The members of the array under `key` that are objects, or texts.
std::vector<json_spirit::Object> objects_in(const json_spirit::Object& object, const char* key);
std::vector<std::string> texts_in(const json_spirit::Object& object, const char* key);
/// A time in seconds since 1970, as "2026-11-21 10:30"; "-" when there is none.
std::string minute_in(const json_spirit::Object& object, const char* key);
/// The text, or "-" for an empty one.
std::string or_dash(const std::string& text);
/// The first eight characters: enough of an id for people.
std::string short_id(const std::string& id);
/// The text cut to so many columns, with dots in place of the rest.
std::string cut_to(const std::string& text, size_t columns);
} // namespace kestrel
