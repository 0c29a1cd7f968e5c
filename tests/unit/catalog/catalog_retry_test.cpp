#include "catalog_fixture.h"

#include "catalog/catalog_admin.h"
#include "catalog/catalog_back_end.h"
#include "catalog/catalog_database.h"
#include "catalog/catalog_repeat.h"
#include "catalog/sql_back_end.h"
#include "support/clocks.h"

#include <stdexcept>

using json_spirit::find_value;
using kestrel::Catalog_Status;

namespace
{
/// Gives the same answer every time, or `done` after some attempts.
class Scripted_Back_End : public kestrel::Catalog_Back_End
{
public:
  Catalog_Status answer(std::string& error)
  {
    ++attempts;
    if (throws)
      throw std::runtime_error("out of everything");
    if (attempts > busy_attempts)
      return then;
    error = "Catalog x is locked";
    return Catalog_Status::busy;
  }
  Catalog_Status get_view(const std::string&, const std::string&,
                          const std::map<std::string, json_spirit::Value>&, json_spirit::Value& result,
                          std::string& error) override
  {
    result = "half an answer";
    return answer(error);
  }
  Catalog_Status commit(const kestrel::Backup_Record&, bool, std::string&, std::string& error) override
  {
    return answer(error);
  }
  Catalog_Status set_state(const std::string&, kestrel::Set_State, const std::string&,
                           std::string& error) override
  {
    return answer(error);
  }
  Catalog_Status remove(const std::string&, std::string& error) override { return answer(error); }
  Catalog_Status dependents(const std::string&, std::vector<std::string>&, std::string& error) override
  {
    return answer(error);
  }
  Catalog_Status count_by_pool(const std::string&, uint64_t&, std::string& error) override
  {
    return answer(error);
  }

  unsigned attempts = 0;
  unsigned busy_attempts = 1000000;
  Catalog_Status then = Catalog_Status::done;
  bool throws = false;
};

/// Loses the answer of its first commits: the connection breaks off after the database has written them, or
/// before.
class Losing_Back_End : public kestrel::Sql_Back_End
{
public:
  explicit Losing_Back_End(bool written)
      : kestrel::Sql_Back_End(kestrel::default_catalog_place()), written_(written)
  {
  }
  Catalog_Status commit(const kestrel::Backup_Record& record, bool must_be_new, std::string& warning,
                        std::string& error) override
  {
    ++attempts;
    if (to_lose == 0)
      return kestrel::Sql_Back_End::commit(record, must_be_new, warning, error);
    --to_lose;
    if (written_) {
      EXPECT_EQ(Catalog_Status::done, kestrel::Sql_Back_End::commit(record, must_be_new, warning, error));
    }
    error = "Catalog x: server closed the connection";
    return Catalog_Status::busy;
  }
  Catalog_Status get_view(const std::string& catalog, const std::string& view, const Query& query,
                          json_spirit::Value& result, std::string& error) override
  {
    if (views_to_lose == 0)
      return kestrel::Sql_Back_End::get_view(catalog, view, query, result, error);
    --views_to_lose;
    error = "Catalog x: server closed the connection";
    return Catalog_Status::busy;
  }

  unsigned attempts = 0;
  unsigned to_lose = 1;
  unsigned views_to_lose = 0;

private:
  const bool written_;
};
} // namespace

class Catalog_Retry : public Catalog_Fixture
{
protected:
  void SetUp() override { kestrel::register_catalog_back_end(back_end_); }
  void TearDown() override
  {
    kestrel::register_catalog_back_end(nullptr);
    kestrel::set_catalog_retry_seconds(300);
  }
  bool get(int seconds, json_spirit::Value& result)
  {
    return Catalog_Operator(-1, seconds).get_view("oscar", "catalogs", {}, result);
  }

  std::shared_ptr<Scripted_Back_End> back_end_ = std::make_shared<Scripted_Back_End>();
  kestrel_test::Fake_Clock clock_;
};

TEST_F(Catalog_Retry, a_busy_catalog_is_tried_until_it_answers)
{
  back_end_->busy_attempts = 4;
  json_spirit::Value result;
  EXPECT_TRUE(get(60, result));
  EXPECT_EQ(5u, back_end_->attempts);
  EXPECT_EQ(100 + 200 + 400 + 800, clock_.slept_msec());
}

TEST_F(Catalog_Retry, gives_up_when_the_time_is_over)
{
  json_spirit::Value result("untouched");
  EXPECT_FALSE(get(60, result));
  EXPECT_EQ(60000, clock_.slept_msec());
  EXPECT_EQ("untouched", result.get_str());
  log_.expect(LM_ERROR, "Catalog_Operator::get_view: Catalog x is locked (tried for 60 s)");
  EXPECT_LT(back_end_->attempts, 30u) << "pauses must grow";
}

TEST_F(Catalog_Retry, zero_tries_once)
{
  json_spirit::Value result;
  EXPECT_FALSE(get(0, result));
  EXPECT_EQ(1u, back_end_->attempts);
  EXPECT_EQ(0u, clock_.sleeps());
  log_.expect(LM_ERROR, "locked");
}

TEST_F(Catalog_Retry, minus_one_is_a_finite_default)
{
  EXPECT_EQ(300, kestrel::catalog_retry_seconds());
  EXPECT_FALSE(Catalog_Operator(-1, -1).commit(make_set("b1"), true));
  EXPECT_EQ(300000, clock_.slept_msec());
  log_.expect(LM_ERROR, "Catalog_Operator::commit: Catalog x is locked (tried for 300 s)");

  kestrel::set_catalog_retry_seconds(7);
  EXPECT_FALSE(Catalog_Operator(-1, -1).commit(make_set("b1"), true));
  EXPECT_EQ(307000, clock_.slept_msec());
  log_.expect(LM_ERROR, "(tried for 7 s)");
}

TEST_F(Catalog_Retry, other_failures_end_at_once)
{
  back_end_->busy_attempts = 2;
  back_end_->then = Catalog_Status::failed;
  json_spirit::Value result;
  EXPECT_FALSE(get(60, result));
  EXPECT_EQ(3u, back_end_->attempts);
  log_.expect(LM_ERROR, "Catalog_Operator::get_view");
}

TEST_F(Catalog_Retry, no_exception_leaves_an_operation)
{
  back_end_->throws = true;
  json_spirit::Value result;
  EXPECT_FALSE(get(60, result));
  log_.expect(LM_ERROR, "out of everything");
  EXPECT_FALSE(Catalog_Operator(-1, 60).commit(make_set("b1"), true));
  log_.expect(LM_ERROR, "out of everything");
  std::string error;
  EXPECT_FALSE(kestrel::Catalog_Admin(60).remove("x", error));
  EXPECT_EQ("out of everything", error);
}

TEST_F(Catalog_Retry, administration_retries_too)
{
  std::string error;
  std::vector<std::string> uuids;
  uint64_t count = 0;
  kestrel::Catalog_Admin admin(2);
  EXPECT_FALSE(admin.set_state("x", kestrel::Set_State::available, "", error));
  EXPECT_FALSE(admin.remove("x", error));
  EXPECT_FALSE(admin.dependents("x", uuids, error));
  EXPECT_FALSE(admin.count_by_pool("x", count, error));
  EXPECT_EQ(8000, clock_.slept_msec());
  EXPECT_EQ("Catalog x is locked (tried for 2 s)", error);
}

TEST_F(Catalog_Retry, a_commit_knows_the_record_that_its_lost_connection_has_written)
{
  const auto losing = std::make_shared<Losing_Back_End>(true);
  kestrel::register_catalog_back_end(losing);
  EXPECT_TRUE(Catalog_Operator(-1, 60).commit(make_set("b1"), true));
  EXPECT_EQ(2u, losing->attempts);
  losing->to_lose = 1;
  EXPECT_TRUE(Catalog_Operator(-1, 60).commit(make_logical_set("u1", 7), true));
  losing->to_lose = 1;
  losing->views_to_lose = 1;
  EXPECT_TRUE(Catalog_Operator(-1, 60).commit(make_set("b2"), true)) << "the look was lost, too";
  EXPECT_EQ("b1 b2", ids({}));
  EXPECT_EQ("u1", texts(rows({}, "oscar"), "uuid"));

  EXPECT_FALSE(Catalog_Operator(-1, 60).commit(make_set("b1"), true)) << "a call of its own is no repeat";
  log_.expect(LM_ERROR, "already has a backup set 'b1'");
}

TEST_F(Catalog_Retry, a_commit_that_its_lost_connection_has_not_written_is_written)
{
  kestrel::register_catalog_back_end(std::make_shared<Losing_Back_End>(false));
  EXPECT_TRUE(Catalog_Operator(-1, 60).commit(make_set("b1"), true));
  EXPECT_EQ("b1", ids({}));
}

TEST_F(Catalog_Retry, a_repeated_commit_takes_no_other_record_for_its_own)
{
  Oscar_Brcmd_Backup_Set larger = make_set("b1");
  larger.set_backup_set_size(4097);
  kestrel::register_catalog_back_end(nullptr);
  ASSERT_TRUE(commit(make_set("b1")));
  kestrel::Backup_Record moved = make_set("b1").record();
  moved.storages.front().pool_uuid = "pool-9";
  for (const kestrel::Backup_Record& other : {larger.record(), moved}) {
    const auto losing = std::make_shared<Losing_Back_End>(false);
    std::string warning, error;
    EXPECT_EQ(Catalog_Status::busy, kestrel::commit_again(*losing, other, true, false, warning, error));
    EXPECT_EQ(Catalog_Status::failed, kestrel::commit_again(*losing, other, true, true, warning, error));
    EXPECT_NE(std::string::npos, error.find("already has a backup set 'b1'")) << error;
  }
  kestrel::register_catalog_back_end(std::make_shared<Losing_Back_End>(false));
  EXPECT_FALSE(Catalog_Operator(-1, 60).commit(larger, true));
  log_.expect(LM_ERROR, "already has a backup set 'b1'");
  EXPECT_EQ(4096u, find_value(rows({}).at(0).get_obj(), "backup_set_size").get_uint64());
}

TEST_F(Catalog_Retry, a_locked_database_is_busy)
{
  kestrel::Catalog_Place place = kestrel::default_catalog_place();
  place.busy_timeout_msec = 0;
  kestrel::register_catalog_back_end(std::make_shared<kestrel::Sql_Back_End>(place));
  ASSERT_TRUE(commit(make_set("b1")));
  kestrel::Catalog_Database other(place);
  {
    kestrel::Catalog_Transaction writing(other.session(), kestrel::Catalog_Transaction::Kind::write);
    EXPECT_FALSE(Catalog_Operator(-1, 3).commit(make_set("b2"), true));
    EXPECT_EQ(3000, clock_.slept_msec());
    log_.expect(LM_ERROR,
                "database is locked. Another process is writing to it: repeat later (tried for 3 s)");
    EXPECT_EQ("b1", ids({})) << "readers are not held up by a writer";
  }
  EXPECT_TRUE(Catalog_Operator(-1, 3).commit(make_set("b2"), true));
}
