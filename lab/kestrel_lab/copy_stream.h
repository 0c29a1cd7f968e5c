/// Rows for PostgreSQL's COPY ... (FORMAT binary), built field by field and sent in large pieces.
/// Threads: one stream per connection and thread. Errors: Failure.
#pragma once

#include "lab/common/database.h"

#include <cstdint>
#include <string>
#include <vector>

namespace oscar_lab
{

class Copy_Stream
{
public:
  /// Starts the statement, which must be a binary COPY FROM STDIN.
  Copy_Stream(Connection& connection, const std::string& statement);

  void begin_row(int fields);
  void int16(std::int16_t value);
  void int32(std::int32_t value);
  void int64(std::int64_t value);
  void float4(float value);
  void float8(double value);
  void boolean(bool value);
  void text(const std::string& value) { bytes(value.data(), value.size()); }
  void bytes(const void* data, std::size_t size);
  void jsonb(const std::string& value);
  /// value hundredths, for numeric(n, 2); never negative.
  void cents(std::uint64_t value);
  void int4_array(const std::vector<std::int32_t>& values);
  /// IPv4 address in host byte order, as inet.
  void inet(std::uint32_t address);

  /// Sends what is left and waits for the server's verdict.
  void finish();

private:
  void put16(std::uint16_t value);
  void put32(std::uint32_t value);
  void put64(std::uint64_t value);
  void send();

  Connection& connection_;
  std::string buffer_;
};

} // namespace oscar_lab
