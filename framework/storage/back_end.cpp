#include "storage/back_end.h"

#include "storage/directory_back_end.h"

#include <map>
#include <mutex>

namespace kestrel
{
namespace
{
std::mutex factories_lock;

std::map<std::string, Storage_Back_End_Factory>& factories()
{
  static auto* map = new std::map<std::string, Storage_Back_End_Factory>;
  return *map;
}
} // namespace

Stored_File_Writer::~Stored_File_Writer() = default;

void Stored_File_Writer::discard() {}

Stored_File_Reader::~Stored_File_Reader() = default;

bool Stored_File_Reader::can_read_at() const
{
  return false;
}

int Stored_File_Reader::read_at(uint64_t, void*, unsigned, std::string& error)
{
  error = "cannot read " + path() + " at any place: its storage has no way to do that";
  return -1;
}

Storage_Back_End::~Storage_Back_End() = default;

void register_storage_back_end(const std::string& name, Storage_Back_End_Factory factory)
{
  std::lock_guard<std::mutex> guard(factories_lock);
  if (factory)
    factories()[name] = std::move(factory);
  else
    factories().erase(name);
}

std::unique_ptr<Storage_Back_End> make_storage_back_end(const std::string& name, std::string& error)
{
  Storage_Back_End_Factory factory;
  {
    std::lock_guard<std::mutex> guard(factories_lock);
    const auto found = factories().find(name);
    if (found != factories().end())
      factory = found->second;
  }
  std::unique_ptr<Storage_Back_End> back_end;
  if (factory)
    back_end = factory();
  else if (name.empty())
    back_end.reset(new Directory_Back_End);
  if (!back_end)
    error = "this host has no storage back end named \"" + name +
            "\"; correct the pool or start the host with it";
  return back_end;
}
} // namespace kestrel
