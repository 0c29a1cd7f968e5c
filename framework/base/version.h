#pragma once

namespace kestrel
{
/// The product's version as text, such as "0.1.0". Static storage; any thread.
const char* version();
} // namespace kestrel
