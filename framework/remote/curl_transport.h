#pragma once

#include "remote/rest_client.h"

#include <memory>

namespace kestrel
{
/// The transport that speaks HTTPS (TLS 1.2 or later) with libcurl. Threads and errors: as REST_Client.
std::shared_ptr<REST_Transport> make_curl_transport(const REST_Client_Options& options);
} // namespace kestrel
