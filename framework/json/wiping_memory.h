#pragma once

#include <yajl/yajl_common.h>

namespace kestrel
{
/// Memory for the JSON library that is wiped before it is given back, also when it grows: texts of documents,
/// passwords among them, pass through its buffers. Threads: any. Errors: null when there is no memory.
const yajl_alloc_funcs& json_wiping_memory();
} // namespace kestrel
