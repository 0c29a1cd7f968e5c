#pragma once

#include "catalog/catalog_back_end.h"

#include <functional>
#include <string>

namespace kestrel
{
/// Runs the attempt until it is not busy any more or the time is over (at least once), with growing pauses
/// through kestrel::clock(). `max_seconds_retry` below 0 is catalog_retry_seconds(). True when the attempt
/// was done; else `error` is the last attempt's text, with the time it was tried when that was the reason to
/// give up.
[[nodiscard]] bool retry_while_busy(int max_seconds_retry, std::string& error,
                                    const std::function<Catalog_Status(std::string& error)>& attempt);
} // namespace kestrel
