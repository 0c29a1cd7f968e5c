#include "cli/password_input.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
std::string read_from(const std::string& content, std::string& error)
{
  const Temp_Dir dir;
  secure_string password;
  return read_password(dir.write("password", content), "", password, error) == EXIT_CODE_DONE
             ? std::string(password.begin(), password.end())
             : std::string("<refused>");
}
} // namespace

TEST(Password_Input, takes_the_first_line_of_a_file_without_its_end)
{
  std::string error;
  EXPECT_EQ("secret", read_from("secret\n", error));
  EXPECT_EQ("secret", read_from("secret", error));
  EXPECT_EQ("secret", read_from("secret\r\n", error));
  EXPECT_EQ("secret", read_from("secret\nmore\n", error));
  EXPECT_EQ(" s p/a%c'e\" ", read_from(" s p/a%c'e\" \n", error));
}

TEST(Password_Input, refuses_what_cannot_be_a_password_and_says_why)
{
  std::string error;
  EXPECT_EQ("<refused>", read_from("", error));
  EXPECT_EQ("the password is empty", error);
  EXPECT_EQ("<refused>", read_from("\nsecret\n", error));
  EXPECT_EQ("the password is empty", error);
  EXPECT_EQ("<refused>", read_from(std::string("a\0b\n", 4), error));
  EXPECT_NE(std::string::npos, error.find("NUL")) << error;
  EXPECT_EQ(std::string(1023, 'x'), read_from(std::string(1023, 'x') + "\n", error));
  EXPECT_EQ("<refused>", read_from(std::string(1024, 'x') + "\n", error));
  EXPECT_EQ("the password is longer than 1023 bytes", error);
}

TEST(Password_Input, names_a_file_that_cannot_be_read_and_keeps_the_password_untouched)
{
  secure_string password = "before";
  std::string error;
  EXPECT_EQ(EXIT_CODE_FAILED, read_password("/nonexistent/password", "", password, error));
  EXPECT_EQ("cannot open the password file /nonexistent/password: No such file or directory", error);
  EXPECT_TRUE(password == "before");
  const Temp_Dir dir;
  EXPECT_EQ(EXIT_CODE_FAILED, read_password(dir.path(), "", password, error));
  EXPECT_EQ("cannot read the password file " + dir.path() + ": Is a directory", error);
}
