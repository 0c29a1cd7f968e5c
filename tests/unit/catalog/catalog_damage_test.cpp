#include "catalog/catalog_database.h"
#include "catalog/sql_back_end.h"
#include "catalog_fixture.h"

using json_spirit::find_value;

class Catalog_Damage : public Catalog_Fixture
{
};

TEST_F(Catalog_Damage, a_damaged_record_says_so_and_hides_no_others)
{
  for (uint64_t number = 1; number <= 3; ++number) {
    Oscar_Backup_Set set = make_logical_set("u" + std::to_string(number), number);
    set.set_tablespaces({"USERS"});
    ASSERT_TRUE(commit(set));
  }
  {
    kestrel::Catalog_Database database(kestrel::default_catalog_place());
    database.session() << "UPDATE backup_set SET tablespaces = '[\"USERS' WHERE uuid = 'u2'";
  }
  const json_spirit::Array found = rows({{"sort", "seq"}}, "oscar");
  ASSERT_EQ("u1 u2 u3", texts(found, "uuid"));
  for (const size_t good : {0u, 2u}) {
    EXPECT_TRUE(find_value(found[good].get_obj(), "unreadable").is_null());
    EXPECT_EQ(1u, find_value(found[good].get_obj(), "tablespaces").get_array().size());
  }
  const json_spirit::Object& bad = found[1].get_obj();
  EXPECT_EQ(0u,
            find_value(bad, "unreadable").get_str().find("the stored field tablespaces is not readable: "));
  EXPECT_TRUE(find_value(bad, "tablespaces").is_null());
  EXPECT_EQ("available", find_value(bad, "state").get_array().at(0).get_str());
}
