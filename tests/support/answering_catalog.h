#pragma once

#include "catalog/catalog_back_end.h"
#include "catalog/sql_back_end.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

namespace kestrel_test
{
/// The catalog of the test, except that chosen views answer with any text that a foreign or damaged server
/// might send.
class Answering_Catalog : public kestrel::Sql_Back_End
{
public:
  Answering_Catalog() : Sql_Back_End(kestrel::default_catalog_place()) {}

  /// From now on the view answers with this JSON text; "" gives the catalog's own answers again.
  void answer(const std::string& view, const std::string& text) { answers_[view] = text; }

  kestrel::Catalog_Status get_view(const std::string& catalog, const std::string& view,
                                   const std::map<std::string, json_spirit::Value>& query,
                                   json_spirit::Value& result, std::string& error) override
  {
    const std::string text = answers_[view];
    if (text.empty())
      return Sql_Back_End::get_view(catalog, view, query, result, error);
    EXPECT_TRUE(kestrel::read_json(text, result, error)) << text << ": " << error;
    return kestrel::Catalog_Status::done;
  }

private:
  std::map<std::string, std::string> answers_;
};

/// Puts such a catalog in the place of the real one as long as it lives.
class Catalog_Answers
{
public:
  Catalog_Answers() : catalog_(std::make_shared<Answering_Catalog>())
  {
    kestrel::register_catalog_back_end(catalog_);
  }
  ~Catalog_Answers() { kestrel::register_catalog_back_end(nullptr); }
  Catalog_Answers(const Catalog_Answers&) = delete;
  Catalog_Answers& operator=(const Catalog_Answers&) = delete;
  Answering_Catalog* operator->() const { return catalog_.get(); }

private:
  const std::shared_ptr<Answering_Catalog> catalog_;
};
} // namespace kestrel_test
