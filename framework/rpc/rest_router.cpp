#include "rpc/rest_router.h"

namespace kestrel
{
struct REST_Router::State {
};

REST_Router::REST_Router() : state_(new State) {}
REST_Router::~REST_Router() {}
} // namespace kestrel
