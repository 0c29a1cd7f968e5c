#include "oscar/oscar_cmd_handler.h"

#include <gtest/gtest.h>

namespace
{
std::string with_login(const std::string& cmd, bool is_brcmd, const char* username, const char* password)
{
  return mask_oscar_cmd(cmd, is_brcmd, Oscar_Cmd_Login{username, password});
}
} // namespace

TEST(Mask_Oscar_Cmd, hides_the_password_behind_the_user_name)
{
  EXPECT_EQ(mask_oscar_cmd("isql -Usysdba/secret -dDB1 -p2003", false), "isql -Usysdba/*** -dDB1 -p2003");
  EXPECT_EQ(mask_oscar_cmd("osrexp -Ua/1 -Ub/2", false), "osrexp -Ua/*** -Ub/***");
  EXPECT_EQ(mask_oscar_cmd("isql -Usysdba/secret", false), "isql -Usysdba/***");
}

TEST(Mask_Oscar_Cmd, leaves_the_port_of_isql_alone)
{
  EXPECT_EQ(mask_oscar_cmd("isql -p 5432 -d DB1", false), "isql -p 5432 -d DB1");
}

TEST(Mask_Oscar_Cmd, hides_every_word_behind_minus_p_for_brcmd)
{
  EXPECT_EQ(mask_oscar_cmd("brcmd -u a -p secret -P 2003", true), "brcmd -u a -p*** -P 2003");
  EXPECT_EQ(mask_oscar_cmd("brcmd -p 5432 -p \t x", true), "brcmd -p*** -p***");
  EXPECT_EQ(mask_oscar_cmd("brcmd -Usysdba/secret", true), "brcmd -Usysdba/secret");
}

TEST(Mask_Oscar_Cmd, patterns_alone_stop_at_blanks_and_slashes)
{
  EXPECT_EQ(mask_oscar_cmd("isql -Uu/pa/ss -dX", false), "isql -Uu/***/ss -dX");
  EXPECT_EQ(mask_oscar_cmd("isql -Uu/pa ss -dX", false), "isql -Uu/*** ss -dX");
}

TEST(Mask_Oscar_Cmd, a_known_login_is_hidden_whole)
{
  EXPECT_EQ(with_login("isql -Uu/pa/ss -dX", false, "u", "pa/ss"), "isql -Uu/*** -dX");
  EXPECT_EQ(with_login("isql -Uu/pa ss -dX", false, "u", "pa ss"), "isql -Uu/*** -dX");
  EXPECT_EQ(with_login("isql -Uu/p'a\"s -dX", false, "u", "p'a\"s"), "isql -Uu/*** -dX");
  EXPECT_EQ(with_login("isql -Uu/100%s -dX", false, "u", "100%s"), "isql -Uu/*** -dX");
  EXPECT_EQ(with_login("isql -Uu/$1$&\\1 -dX", false, "u", "$1$&\\1"), "isql -Uu/*** -dX");
  EXPECT_EQ(with_login("isql -Umy user/pw -dX", false, "my user", "pw"), "isql -Umy user/*** -dX");
  EXPECT_EQ(with_login("isql -Uu/ pw -dX", false, "u", " pw"), "isql -Uu/*** -dX");
  EXPECT_EQ(with_login("isql -Uu/pa ss", false, "u", "pa ss"), "isql -Uu/***");
  EXPECT_EQ(with_login("brcmd -u u -p pa ss -P 1", true, "u", "pa ss"), "brcmd -u u -p*** -P 1");
}

TEST(Mask_Oscar_Cmd, a_known_login_changes_nothing_for_ordinary_passwords)
{
  const std::string isql = "isql -Usysdba/secret -hlocalhost -dDB1 -p2003 -c \"select 1\"";
  EXPECT_EQ(with_login(isql, false, "sysdba", "secret"), mask_oscar_cmd(isql, false));
  const std::string brcmd = "brcmd -O backup -d DB1 -u sysdba -p x -P 2003 -p xyz";
  EXPECT_EQ(with_login(brcmd, true, "sysdba", "x"), mask_oscar_cmd(brcmd, true));
  EXPECT_EQ(with_login(isql, false, "", ""), mask_oscar_cmd(isql, false));
}

TEST(Mask_Oscar_Cmd, shows_only_the_program_when_the_patterns_give_up)
{
  std::string cmd = "isql -Uu/secret ";
  for (int i = 0; i < 50000; ++i)
    cmd += "-U";
  const std::string masked = mask_oscar_cmd(cmd, false);
  EXPECT_EQ(masked, "isql ***");
}

TEST(Mask_Oscar_Cmd, survives_long_text)
{
  const std::string blanks(200000, ' ');
  EXPECT_EQ(mask_oscar_cmd("brcmd -p" + blanks + "secret", true), "brcmd -p***");
  EXPECT_EQ(mask_oscar_cmd("isql -Uu/secret" + blanks, false), "isql -Uu/***" + blanks);
}
