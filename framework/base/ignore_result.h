#pragma once

namespace kestrel
{
/// The one way to drop a result on purpose; the reason says why nothing can or need be done about a failure.
template <class Result> void ignore_result(const Result&, const char* /*reason*/) {}
} // namespace kestrel
