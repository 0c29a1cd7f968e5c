#include "lab/kestrel_lab/copy_stream.h"

#include "lab/common/text.h"

#include <cstring>

namespace oscar_lab
{

namespace
{

constexpr std::size_t piece_bytes = 256 * 1024;
constexpr std::uint32_t int4_type = 23;

} // namespace

Copy_Stream::Copy_Stream(Connection& connection, const std::string& statement) : connection_(connection)
{
  connection_.query(statement);
  buffer_.reserve(piece_bytes + 8192);
  buffer_.append("PGCOPY\n\377\r\n\0", 11);
  put32(0); // flags
  put32(0); // length of the header extension
}

void Copy_Stream::put16(std::uint16_t value)
{
  const char bytes[2] = {static_cast<char>(value >> 8), static_cast<char>(value)};
  buffer_.append(bytes, sizeof bytes);
}

void Copy_Stream::put32(std::uint32_t value)
{
  put16(static_cast<std::uint16_t>(value >> 16));
  put16(static_cast<std::uint16_t>(value));
}

void Copy_Stream::put64(std::uint64_t value)
{
  put32(static_cast<std::uint32_t>(value >> 32));
  put32(static_cast<std::uint32_t>(value));
}

void Copy_Stream::begin_row(int fields)
{
  if (buffer_.size() >= piece_bytes)
    send();
  put16(static_cast<std::uint16_t>(fields));
}

void Copy_Stream::int16(std::int16_t value)
{
  put32(2);
  put16(static_cast<std::uint16_t>(value));
}

void Copy_Stream::int32(std::int32_t value)
{
  put32(4);
  put32(static_cast<std::uint32_t>(value));
}

void Copy_Stream::int64(std::int64_t value)
{
  put32(8);
  put64(static_cast<std::uint64_t>(value));
}

void Copy_Stream::float4(float value)
{
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  put32(4);
  put32(bits);
}

void Copy_Stream::float8(double value)
{
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  put32(8);
  put64(bits);
}

void Copy_Stream::boolean(bool value)
{
  put32(1);
  buffer_ += value ? '\1' : '\0';
}

void Copy_Stream::bytes(const void* data, std::size_t size)
{
  put32(static_cast<std::uint32_t>(size));
  buffer_.append(static_cast<const char*>(data), size);
}

void Copy_Stream::jsonb(const std::string& value)
{
  put32(static_cast<std::uint32_t>(value.size() + 1));
  buffer_ += '\1'; // version of the format
  buffer_ += value;
}

void Copy_Stream::cents(std::uint64_t value)
{
  // Base 10000 digits, most significant first; the last one holds the two decimals and two zeros.
  std::vector<std::uint16_t> digits;
  for (std::uint64_t whole = value / 100; whole > 0; whole /= 10000)
    digits.insert(digits.begin(), static_cast<std::uint16_t>(whole % 10000));
  const int weight = static_cast<int>(digits.size()) - 1;
  if (value % 100 != 0)
    digits.push_back(static_cast<std::uint16_t>(value % 100 * 100));
  put32(static_cast<std::uint32_t>(8 + 2 * digits.size()));
  put16(static_cast<std::uint16_t>(digits.size()));
  put16(static_cast<std::uint16_t>(weight));
  put16(0); // positive
  put16(2); // decimals shown
  for (const std::uint16_t digit : digits)
    put16(digit);
}

void Copy_Stream::int4_array(const std::vector<std::int32_t>& values)
{
  put32(static_cast<std::uint32_t>(20 + 8 * values.size()));
  put32(1); // dimensions
  put32(0); // no nulls
  put32(int4_type);
  put32(static_cast<std::uint32_t>(values.size()));
  put32(1); // lower bound
  for (const std::int32_t value : values)
    int32(value);
}

void Copy_Stream::inet(std::uint32_t address)
{
  put32(8);
  const char head[4] = {2, 32, 0, 4}; // IPv4, 32 bits, not a network, 4 bytes
  buffer_.append(head, sizeof head);
  put32(address);
}

void Copy_Stream::send()
{
  if (PQputCopyData(connection_.get(), buffer_.data(), static_cast<int>(buffer_.size())) != 1)
    throw Failure(connection_.error());
  buffer_.clear();
}

void Copy_Stream::finish()
{
  put16(0xffff);
  send();
  if (PQputCopyEnd(connection_.get(), nullptr) != 1)
    throw Failure(connection_.error());
  while (PGresult* const raw = PQgetResult(connection_.get())) {
    const Result result(raw);
    if (PQresultStatus(raw) != PGRES_COMMAND_OK)
      throw Failure(connection_.error());
  }
}

} // namespace oscar_lab
