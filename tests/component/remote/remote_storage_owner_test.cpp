// Which host may do what with the files of others.

#include "served_storage.h"

#include <filesystem>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
class Remote_Storage_Owner : public Served_Storage
{
protected:
  Remote_Storage_Owner() { options_.resumption_buffer_size = 64 * 1024; }
};

TEST_F(Remote_Storage_Owner, removes_what_this_host_stored)
{
  ASSERT_TRUE(store("f", "abc")) << error_;
  EXPECT_TRUE(remove("f")) << error_;
  EXPECT_TRUE(names_in(pool_.storage_path + "/source").empty());
  EXPECT_TRUE(remove("f")) << error_;
  EXPECT_TRUE(remove("never")) << error_;
}

TEST_F(Remote_Storage_Owner, removes_what_this_host_left_unfinished)
{
  {
    Client_IO_Ex client;
    ASSERT_TRUE(client.connect(location_, options_));
    ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
    ASSERT_TRUE(client.write("abc", 3));
  }
  EXPECT_TRUE(remove("f")) << error_;
  EXPECT_TRUE(names_in(pool_.storage_path + "/source").empty());
}

TEST_F(Remote_Storage_Owner, keeps_the_files_of_other_hosts)
{
  place_.dir.make_dir("pool_main/source");
  place_.dir.write("pool_main/source/old", "of somebody");
  EXPECT_FALSE(remove("old"));
  EXPECT_TRUE(exists(path("old")));
  ASSERT_TRUE(store("f", "abc")) << error_;
  use_host("host-2");
  EXPECT_FALSE(remove("f"));
  EXPECT_NE(std::string::npos, error_.find("was not sent by this host")) << error_;
  EXPECT_FALSE(store("f", "mine"));
  EXPECT_NE(std::string::npos, error_.find("another host")) << error_;
  EXPECT_EQ("abc", fetch("f"));
}

TEST_F(Remote_Storage_Owner, keeps_a_file_that_a_backup_set_names)
{
  ASSERT_TRUE(store("f", "abc")) << error_;
  Backup_Record record;
  record.catalog = "oscar_brcmd";
  record.fields = {{"uuid", "u"},     {"resource_uuid", "source"}, {"uri", "source"},
                   {"type", "full"},  {"backup_id", "u"},          {"backup_file", "f"}};
  record.storages.push_back({pool_.pool_id, 3});
  std::string warning, error;
  ASSERT_EQ(Catalog_Status::done, place_.catalog().commit(record, true, warning, error)) << error;
  EXPECT_FALSE(remove("f"));
  EXPECT_NE(std::string::npos, error_.find("belongs to a backup set")) << error_;
  EXPECT_FALSE(store("f", "new"));
  EXPECT_NE(std::string::npos, error_.find("belongs to a backup set")) << error_;
  EXPECT_EQ("abc", fetch("f"));
  // A file of that name elsewhere is another one.
  location_ = "/" + pool_.pool_id + "/elsewhere";
  EXPECT_TRUE(store("f", "new")) << error_;
}

TEST_F(Remote_Storage_Owner, lets_no_other_host_record_what_a_host_stored)
{
  ASSERT_TRUE(store("f", "abc")) << error_;
  const auto record = [this](const std::string& host, const std::string& uuid, const std::string& catalog,
                             const std::string& place) {
    const std::string own = catalog == "oscar" ? R"("seq":7,"minor_resource_id":)"
                                               : R"("backup_id":")" + uuid + R"(","type":"full","uri":)";
    return ask("POST", "catalogs",
               R"({"must_be_new":true,"record":{"catalog":")" + catalog + R"(","fields":{"uuid":")" + uuid +
                   R"(","resource_uuid":"source","host_uuid":")" + host + "\"," + own + place +
                   R"(},"storages":[{"pool_uuid":")" + pool_.pool_id + R"(","size":3}],"pieces":[{"name":"f","size":3}],)" +
                   R"("files":[]}})",
               host);
  };
  const std::string as_field = R"("source","backup_file":"f")", as_piece = R"("source")";
  for (const std::string catalog : {"oscar_brcmd", "oscar"})
    for (const std::string& place : {as_field, as_piece}) {
      EXPECT_EQ(403, record("host-2", "u2", catalog, place)) << catalog << place;
      EXPECT_NE(std::string::npos, reply_.audit.find("source/f, which the host host-1 stored")) << reply_.audit;
    }
  EXPECT_TRUE(remove("f")) << "nothing names it: " << error_;
  ASSERT_TRUE(store("f", "abc")) << error_;
  EXPECT_EQ(200, record("host-1", "u1", "oscar_brcmd", as_piece));
  EXPECT_EQ(200, record("host-1", "u2", "oscar", as_field));
}

TEST_F(Remote_Storage_Owner, keeps_a_recorded_file_of_another_host_whose_sender_is_forgotten)
{
  ASSERT_TRUE(store("f", "abc")) << error_;
  ASSERT_EQ(200, ask("POST", "catalogs",
                     R"({"must_be_new":true,"record":{"catalog":"oscar_brcmd","fields":{"uuid":"u","type":"full",)"
                     R"("resource_uuid":"source","uri":"source","backup_id":"u","backup_file":"f"},)"
                     R"("storages":[{"pool_uuid":")" +
                         pool_.pool_id + R"(","size":3}],"pieces":[],"files":[]}})"));
  use_host("host-2");
  for (const bool forgotten : {false, true}) {
    if (forgotten) {
      std::filesystem::remove_all(place_.dir / "uploads");
      place_.restart();
    }
    EXPECT_FALSE(remove("f")) << forgotten;
    EXPECT_FALSE(store("f", "mine")) << forgotten;
    for (const char* folder : {"source/", "./source", "source/.", "other/../source", "source//"})
      EXPECT_EQ(400, ask("POST", "uploads",
                         R"({"upload":"33333333-3333-4333-8333-333333333333","pool":")" + pool_.pool_id +
                             R"(","folder":")" + folder + R"(","name":"f","overwrite":true})",
                         "host-2"))
          << folder;
    EXPECT_EQ("abc", fetch("f")) << "reading stays allowed";
  }
}

TEST_F(Remote_Storage_Owner, keeps_the_unfinished_file_of_another_host)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  ASSERT_TRUE(client.write("abc", 3));
  use_host("host-2");
  EXPECT_FALSE(remove("f"));
  EXPECT_NE(std::string::npos, error_.find("was not sent by this host")) << error_;
  EXPECT_FALSE(store("f", "mine"));
  place_.restart();
  EXPECT_FALSE(remove("f"));
  EXPECT_FALSE(store("f", "mine"));
  EXPECT_TRUE(client.close()) << client.error();
  EXPECT_EQ("abc", fetch("f"));
}

TEST_F(Remote_Storage_Owner, keeps_a_file_from_the_host_that_could_not_go_on_with_it)
{
  // Whichever of the two is found first among the notes.
  for (const std::string begin : {"00000000", "ffffffff"}) {
    const std::string name = "f" + begin;
    const std::string upload = begin + "-4444-4444-8444-444444444444";
    ASSERT_EQ(200, ask("POST", "uploads",
                       R"({"upload":")" + upload + R"(","pool":")" + pool_.pool_id +
                           R"(","folder":"source","name":")" + name + R"(","overwrite":true})",
                       "host-2"));
    place_.dir.write("pool_main/source/other", "of nobody");
    std::filesystem::rename(path("other"), path(name + ".partial"));
    place_.restart();
    Client_IO_Ex client;
    ASSERT_TRUE(client.connect(location_, options_));
    ASSERT_TRUE(client.open(name, 2, 0, 0)) << client.error();
    ASSERT_TRUE(client.write("abc", 3));
    EXPECT_EQ(403, ask("DELETE", "storage/" + pool_.pool_id + "/source/" + name, "", "host-2"));
    EXPECT_TRUE(client.close()) << client.error();
    EXPECT_EQ("abc", fetch(name));
  }
}
} // namespace
