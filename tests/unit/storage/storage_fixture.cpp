#include "unit/storage/storage_fixture.h"

#include <algorithm>
#include <filesystem>
#include <random>

namespace kestrel_test
{
bool Storage_Fixture::store(const std::string& name, const std::string& content, std::string& error,
                            unsigned piece)
{
  Client_IO_Ex client;
  bool good = client.connect(location_, options_) && client.open(name, 2, 0, 0);
  for (size_t done = 0; good && done < content.size(); done += piece)
    good = client.write(content.data() + done,
                        static_cast<unsigned>(std::min<size_t>(piece, content.size() - done)));
  good = good && client.close();
  if (!good)
    error = client.error();
  return good;
}

void Storage_Fixture::store(const std::string& name, const std::string& content)
{
  std::string error;
  ASSERT_TRUE(store(name, content, error)) << error;
}

bool Storage_Fixture::fetch(const std::string& name, std::string& content, std::string& error, unsigned piece)
{
  Client_IO_Ex client;
  bool good = client.connect(location_, options_) && client.open(name, 1, 0, 0);
  std::vector<char> buffer(piece);
  int count = 1;
  content.clear();
  while (good && count > 0) {
    count = client.read(buffer.data(), piece);
    good = count >= 0;
    if (good)
      content.append(buffer.data(), static_cast<size_t>(count));
  }
  if (!good)
    error = client.error();
  return good;
}

std::string Storage_Fixture::fetch(const std::string& name)
{
  std::string content;
  std::string error;
  EXPECT_TRUE(fetch(name, content, error)) << error;
  return content;
}

std::string test_content(size_t size, unsigned seed)
{
  std::mt19937 random(seed);
  std::string content;
  content.reserve(size + 8);
  while (content.size() < size) {
    const unsigned word = random();
    content.append(reinterpret_cast<const char*>(&word), 4);
    content.append("abcd", 4);
  }
  content.resize(size);
  return content;
}

std::vector<std::string> names_in(const std::string& directory)
{
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}
} // namespace kestrel_test
