#pragma once

#include <cstddef>

namespace kestrel
{
/// What the server accepts from one request.
struct Server_Limits {
  static constexpr std::size_t BODY_BYTES = 16u << 20;
  static constexpr unsigned JSON_DEPTH = 64;
  static constexpr unsigned short DEFAULT_PORT = 7480;
};
} // namespace kestrel
