#include "catalog/sql_back_end.h"
#include "catalog_fixture.h"
#include "support/clocks.h"

#include <sys/stat.h>

class Catalog_Place_Test : public Catalog_Fixture
{
protected:
  void configure(const std::string& text)
  {
    root_.write("var/opt/tarnvik/kestrel3/agent/catalog.json", text);
  }
};

TEST_F(Catalog_Place_Test, is_a_file_unless_a_server_is_configured)
{
  EXPECT_EQ(catalog_path(), kestrel::default_catalog_place().name());
  EXPECT_EQ("", kestrel::default_catalog_place().server);
  configure(R"({"postgresql": "host=/run/postgresql dbname=kestrel"})");
  EXPECT_EQ("host=/run/postgresql dbname=kestrel", kestrel::default_catalog_place().server);
  EXPECT_EQ("on the server (host=/run/postgresql dbname=kestrel)", kestrel::default_catalog_place().name());
}

// Falling back to the file would show other backups, and record new ones where nobody looks for them.
TEST_F(Catalog_Place_Test, a_configuration_that_cannot_be_used_is_an_error)
{
  for (const char* text :
       {"", "{", "[]", "{}", R"({"postgresql": 5})", R"({"postgresql": ""})", R"({"postgresql": "kestrel"})",
        R"({"postgresql": "postgresql://u:topsecret@h/d"})",
        R"({"postgresql": "postgresql://u:topsecret@h/d?connect_timeout=1"})",
        R"({"postgresql": "host=h password=topsecret"})"}) {
    configure(text);
    json_spirit::Value result;
    EXPECT_FALSE(view({}, result)) << text;
    log_.expect(LM_ERROR, "The configuration " + configuration_path() + " cannot be used");
    EXPECT_FALSE(commit(make_set("b1")));
    log_.expect(LM_ERROR, "cannot be used");
  }
  EXPECT_FALSE(log_.contains("topsecret"));
  EXPECT_FALSE(kestrel_test::exists(catalog_path()));
}

TEST_F(Catalog_Place_Test, a_configuration_that_cannot_be_read_is_an_error)
{
  ASSERT_EQ(0, ::mkdir((root_.make_dir("var/opt/tarnvik/kestrel3/agent") + "/catalog.json").c_str(), 0700));
  json_spirit::Value result;
  EXPECT_FALSE(view({}, result));
  log_.expect(LM_ERROR, "Cannot read " + configuration_path());
}

TEST_F(Catalog_Place_Test, an_unreachable_server_is_tried_again)
{
  configure("{\"postgresql\": \"host=" + root_.path() + " dbname=kestrel\"}");
  kestrel_test::Fake_Clock clock;
  json_spirit::Value result("untouched");
  EXPECT_FALSE(Catalog_Operator(-1, 5).get_view("oscar", "catalogs", {}, result));
  EXPECT_EQ(5000, clock.slept_msec());
  EXPECT_EQ("untouched", result.get_str());
  log_.expect(LM_ERROR, "Catalog on the server (host=" + root_.path());
  EXPECT_EQ(1u, log_.count("Check that the server runs and lets this user in (tried for 5 s)"));
}
