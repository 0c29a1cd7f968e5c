#include "server/server_limits.h"
