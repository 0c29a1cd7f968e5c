#pragma once

#include "logical_bench.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// What the tests of imports share.
namespace kestrel_test
{
inline const std::vector<std::string> LEVELS = {"oscar/LOGI1/LOGI1", "oscar/LOGI1/LOGI1/S", "oscar/LOGI1/LOGI1/S/T"};

/// The calls of osrimp that import something.
inline std::vector<std::string> imports(const Logical_Bench& bench)
{
  std::vector<std::string> imports;
  for (const std::string& call : bench.calls("osrimp"))
    if (call.find(" -v") == std::string::npos)
      imports.push_back(call);
  return imports;
}

inline void expect_failure(Logical_Bench& bench, const kestrel::Job_Definition_Fields& fields, const Codes& expected)
{
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields, &alerts));
  EXPECT_EQ(expected, alerts);
  EXPECT_TRUE(imports(bench).empty());
  bench.expect_no_dump_left();
}

inline json_spirit::Value& member(json_spirit::Value& object, const std::string& key)
{
  for (json_spirit::Pair& pair : object.get_obj())
    if (pair.name_ == key)
      return pair.value_;
  object.get_obj().emplace_back(key, json_spirit::Value());
  return object.get_obj().back().value_;
}

/// The first row of an answer of the catalog.
inline json_spirit::Value& first_row(json_spirit::Value& result)
{
  return member(result, "rows").get_array().front();
}
} // namespace kestrel_test
