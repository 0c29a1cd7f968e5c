#include "instances/account_cipher.h"

#include "support/fault_file_system.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using kestrel::Account_Cipher;

class Account_Cipher_Test : public ::testing::Test
{
protected:
  kestrel_test::Temp_Dir dir_;
  std::string error_;
  const std::string path_ = dir_ / "account.key";
  const std::vector<std::string> bound_ = {"oscar", "DB", "uid", "SYS"};

  void make(Account_Cipher& cipher)
  {
    ASSERT_TRUE(cipher.load(path_, Account_Cipher::Missing_Key::make, error_)) << error_;
  }
  bool load()
  {
    Account_Cipher cipher;
    error_.clear();
    return cipher.load(path_, Account_Cipher::Missing_Key::error, error_);
  }
};

TEST_F(Account_Cipher_Test, makes_a_private_key_and_finds_it_again)
{
  Account_Cipher first, second;
  make(first);
  struct stat status;
  ASSERT_EQ(0, ::stat(path_.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 07777u);
  EXPECT_EQ(32, status.st_size);
  ASSERT_TRUE(second.load(path_, Account_Cipher::Missing_Key::error, error_));
  EXPECT_EQ(first.key_id(), second.key_id());
  EXPECT_EQ(16u, first.key_id().size());
}

TEST_F(Account_Cipher_Test, opens_what_it_sealed)
{
  Account_Cipher cipher;
  make(cipher);
  for (const char* password :
       {"", "x", "manager", "p\xc3\xa4ss word'\"\\ with more than fifteen characters"}) {
    std::string sealed;
    secure_string plain("before");
    ASSERT_TRUE(cipher.seal(bound_, password, sealed, error_));
    ASSERT_TRUE(cipher.open(bound_, sealed, plain, error_)) << error_;
    EXPECT_STREQ(password, plain.c_str());
  }
}

TEST_F(Account_Cipher_Test, keeps_bytes_of_any_value)
{
  Account_Cipher cipher;
  make(cipher);
  secure_string password;
  for (int i = 0; i < 256; ++i)
    password += static_cast<char>(i);
  std::string sealed;
  secure_string plain;
  ASSERT_TRUE(cipher.seal(bound_, password, sealed, error_));
  ASSERT_TRUE(cipher.open(bound_, sealed, plain, error_));
  EXPECT_EQ(password, plain);
}

TEST_F(Account_Cipher_Test, seals_the_same_password_differently_each_time)
{
  Account_Cipher cipher;
  make(cipher);
  std::string one, two;
  ASSERT_TRUE(cipher.seal(bound_, "manager", one, error_));
  ASSERT_TRUE(cipher.seal(bound_, "manager", two, error_));
  EXPECT_NE(one, two);
  EXPECT_NE(one.substr(0, 24), two.substr(0, 24)) << "a nonce must not repeat";
}

TEST_F(Account_Cipher_Test, does_not_open_for_another_account)
{
  Account_Cipher cipher;
  make(cipher);
  std::string sealed;
  ASSERT_TRUE(cipher.seal(bound_, "manager", sealed, error_));
  const std::vector<std::vector<std::string>> others = {
      {"oscar", "DB2", "uid", "SYS"}, {"mysql", "DB", "uid", "SYS"}, {"oscar", "DB", "", "SYS"},
      {"oscar", "DB", "uid", "ME"},   {"oscar", "DBuid", "", "SYS"}, {"oscar", "DB", "uid"}};
  for (const auto& other : others) {
    secure_string plain("before");
    EXPECT_FALSE(cipher.open(other, sealed, plain, error_));
    EXPECT_EQ("before", plain);
    EXPECT_NE(std::string::npos, error_.find("does not belong to this account"));
  }
}

TEST_F(Account_Cipher_Test, finds_every_changed_digit)
{
  Account_Cipher cipher;
  make(cipher);
  std::string sealed;
  ASSERT_TRUE(cipher.seal(bound_, "manager", sealed, error_));
  for (size_t i = 0; i < sealed.size(); ++i) {
    std::string changed = sealed;
    changed[i] = changed[i] == '0' ? '1' : '0';
    secure_string plain;
    EXPECT_FALSE(cipher.open(bound_, changed, plain, error_)) << i;
  }
}

TEST_F(Account_Cipher_Test, refuses_text_that_is_no_sealed_password)
{
  Account_Cipher cipher;
  make(cipher);
  std::string sealed;
  ASSERT_TRUE(cipher.seal(bound_, "manager", sealed, error_));
  secure_string plain;
  for (const std::string& text :
       {std::string(), std::string("manager"), sealed.substr(1), sealed.substr(0, 54), std::string(200, 'A'),
        std::string(200000, '0'), sealed + "00"})
    EXPECT_FALSE(cipher.open(bound_, text, plain, error_)) << text.substr(0, 80);
}

TEST_F(Account_Cipher_Test, refuses_a_password_of_absurd_length)
{
  Account_Cipher cipher;
  make(cipher);
  std::string sealed("before");
  EXPECT_FALSE(cipher.seal(bound_, secure_string(100000, 'x'), sealed, error_));
  EXPECT_EQ("before", sealed);
}

TEST_F(Account_Cipher_Test, another_key_has_another_identity_and_opens_nothing)
{
  Account_Cipher cipher, other;
  make(cipher);
  ASSERT_TRUE(other.load(dir_ / "other.key", Account_Cipher::Missing_Key::make, error_));
  EXPECT_NE(cipher.key_id(), other.key_id());
  std::string sealed;
  secure_string plain;
  ASSERT_TRUE(cipher.seal(bound_, "manager", sealed, error_));
  EXPECT_FALSE(other.open(bound_, sealed, plain, error_));
}

TEST_F(Account_Cipher_Test, refuses_a_key_that_others_may_read)
{
  Account_Cipher cipher;
  make(cipher);
  for (const mode_t mode : {0640, 0604, 0620, 0601, 0777}) {
    ASSERT_EQ(0, ::chmod(path_.c_str(), mode));
    EXPECT_FALSE(load()) << std::oct << mode;
    EXPECT_NE(std::string::npos, error_.find("chmod 600")) << error_;
    EXPECT_NE(std::string::npos, error_.find(path_));
  }
  ASSERT_EQ(0, ::chmod(path_.c_str(), 0400));
  EXPECT_TRUE(load()) << error_;
}

TEST_F(Account_Cipher_Test, refuses_a_key_of_the_wrong_length)
{
  for (const size_t length : {0, 1, 31, 33, 5000}) {
    dir_.write("account.key", std::string(length, 'k'), 0600);
    EXPECT_FALSE(load()) << length;
    EXPECT_NE(std::string::npos, error_.find("damaged")) << error_;
    Account_Cipher cipher;
    EXPECT_FALSE(cipher.load(path_, Account_Cipher::Missing_Key::make, error_)) << "must not replace it";
  }
}

TEST_F(Account_Cipher_Test, refuses_what_is_not_a_file_of_its_own)
{
  EXPECT_FALSE(load());
  EXPECT_NE(std::string::npos, error_.find("is missing")) << error_;

  dir_.write("real", std::string(32, 'k'), 0600);
  ASSERT_EQ(0, ::symlink((dir_ / "real").c_str(), path_.c_str()));
  EXPECT_FALSE(load());
  ASSERT_EQ(0, ::unlink(path_.c_str()));

  ASSERT_EQ(0, ::mkdir(path_.c_str(), 0700));
  EXPECT_FALSE(load());
  ASSERT_EQ(0, ::rmdir(path_.c_str()));

  ASSERT_EQ(0, ::mkfifo(path_.c_str(), 0600));
  EXPECT_FALSE(load()) << "and must not wait for a writer";
}

TEST_F(Account_Cipher_Test, refuses_a_key_of_another_user)
{
  if (::geteuid() != 0)
    GTEST_SKIP() << "only root can give a file away";
  Account_Cipher cipher;
  make(cipher);
  ASSERT_EQ(0, ::chown(path_.c_str(), 12345, 12345));
  EXPECT_FALSE(load());
  EXPECT_NE(std::string::npos, error_.find("another user")) << error_;
}

// Whatever fails while the key is made: an error, no half key, and the next try works.
TEST_F(Account_Cipher_Test, making_the_key_survives_every_failing_call)
{
  for (const char* kind : {"open", "write", "fsync", "close", "rename", "fsync_directory", "fstat", "read"})
    for (unsigned number = 1; number < 50; ++number) {
      ::unlink(path_.c_str());
      bool met, done;
      {
        kestrel_test::Fault_File_System faults;
        faults.fail(kind, number, EIO);
        Account_Cipher cipher;
        error_.clear();
        done = cipher.load(path_, Account_Cipher::Missing_Key::make, error_);
        met = faults.met();
      }
      // Closing a file that was only read, and the size of a complete one, may fail without harm.
      EXPECT_TRUE(done || !error_.empty()) << kind << number;
      EXPECT_TRUE(!kestrel_test::exists(path_) || kestrel_test::read_file(path_).size() == 32)
          << kind << number;
      Account_Cipher again;
      EXPECT_TRUE(again.load(path_, Account_Cipher::Missing_Key::make, error_)) << kind << number << error_;
      if (!met) {
        EXPECT_TRUE(done);
        break;
      }
    }
}
