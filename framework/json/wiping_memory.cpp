#include "json/wiping_memory.h"

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string.h>

namespace kestrel
{
namespace
{
void* take(void*, size_t bytes)
{
  return std::malloc(bytes);
}

void give_back(void*, void* memory)
{
  if (!memory)
    return;
  ::explicit_bzero(memory, ::malloc_usable_size(memory));
  std::free(memory);
}

/// realloc() would leave the former place as it was.
void* resize(void* context, void* memory, size_t bytes)
{
  void* const other = take(context, bytes);
  if (!other || !memory)
    return other;
  const size_t known = ::malloc_usable_size(memory);
  std::memcpy(other, memory, known < bytes ? known : bytes);
  give_back(context, memory);
  return other;
}
} // namespace

const yajl_alloc_funcs& json_wiping_memory()
{
  static const yajl_alloc_funcs functions = {take, resize, give_back, nullptr};
  return functions;
}
} // namespace kestrel
