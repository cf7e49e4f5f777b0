// One name and its value: a line "name=value" of a "properties" section, or
// an HTTP header line "name: value".
#pragma once

#include <utility>

#include "foundation/string.h"

struct NameValuePair {
    NameValuePair() = default;
    NameValuePair(STRING n, STRING v) : name(std::move(n)), value(std::move(v)) {}

    friend bool operator==(const NameValuePair& a, const NameValuePair& b) {
        return a.name == b.name && a.value == b.value;
    }
    friend bool operator!=(const NameValuePair& a, const NameValuePair& b) { return !(a == b); }

    STRING name;
    STRING value;
};
