#pragma once

#include "archive/metadata.h"

#include <string>
#include <vector>

namespace oscar
{
/// What a logical backup keeps about its instance: the instance's name and its user tablespaces.
/// The record must be made an object (metadata()) before anything can be set.
/// Errors:  false when the record is no object (logged), or when the key is missing or of another kind; the
///          argument is untouched then.
class Oscar_Metadata : public MTF::Metadata
{
public:
  [[nodiscard]] bool get_dbinstance(std::string& value) const;
  [[nodiscard]] bool set_dbinstance(const std::string& value);
  [[nodiscard]] bool get_tablespaces(std::vector<json_spirit::Value>& value) const;
  /// Replaces an earlier list.
  [[nodiscard]] bool set_tablespaces(const std::vector<json_spirit::Value>& value);
};
} // namespace oscar
