// The network addresses the transport watches to decide whether a failed
// transfer calls for a fresh libcurl handle: the host's own addresses and
// the address a server name resolves to.
#pragma once

#include <vector>

#include "foundation/string.h"

// The IP addresses of the host's network interfaces, as numeric texts, in
// the order the system lists them. Empty when they cannot be read.
std::vector<STRING> hostAddresses();

// The first address the name resolves to, as a numeric text ("127.0.0.1",
// "::1"); a numeric name resolves to itself. Empty when the name does not
// resolve.
STRING resolveHostAddress(const STRING& host);
