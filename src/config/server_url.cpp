#include "config/server_url.h"

ServerUrl ServerUrl::parse(const STRING& text) {
    ServerUrl url;
    STRING rest = text.trim();
    const size_t sep = rest.find(STRING(u"://"));
    if (sep != STRING::npos) {
        url.scheme = rest.substr(0, sep);
        rest = rest.substr(sep + 3);
    }
    const size_t slash = rest.find(u'/');
    STRING authority = slash == STRING::npos ? rest : rest.substr(0, slash);
    if (slash != STRING::npos) url.path = rest.substr(slash + 1);
    size_t colon = STRING::npos;
    if (!authority.empty() && authority[0] == u'[') {
        const size_t close = authority.find(u']');
        if (close != STRING::npos && close + 1 < authority.length() && authority[close + 1] == u':') colon = close + 1;
    } else {
        colon = authority.rfind(u':');
    }
    if (colon != STRING::npos) {
        const STRING portText = authority.substr(colon + 1);
        int port = -1;
        try {
            port = portText.toInt();
        } catch (...) {
            port = -1;
        }
        url.port = port;
        authority = authority.substr(0, colon);
    }
    url.host = authority;
    return url;
}

STRING ServerUrl::compose() const {
    STRING text = scheme + u"://" + host;
    if (port >= 0) text += STRING(u":") + STRING::number(port);
    text += u'/';
    text += path;
    return text;
}
