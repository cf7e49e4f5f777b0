// A management server address: scheme "://" host [":" port] ["/" path].
// A host in brackets ("[::1]") is an IPv6 address and keeps its brackets.
#pragma once

#include "foundation/string.h"

struct ServerUrl {
    STRING scheme;
    STRING host;
    int port = -1;  // -1: the address names no port
    STRING path;    // without its leading '/'

    static ServerUrl parse(const STRING& text);
    // scheme "://" host, ":" port when there is one, "/" path.
    STRING compose() const;
};
