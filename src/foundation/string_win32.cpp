// Narrow text on Windows is the ANSI code page.
#include <windows.h>

#include "foundation/string.h"

STRING STRING::fromNarrow(std::string_view in) {
    if (in.empty()) return STRING();
    int n = MultiByteToWideChar(CP_ACP, 0, in.data(), static_cast<int>(in.size()), nullptr, 0);
    std::u16string out(static_cast<size_t>(n), u'\0');
    MultiByteToWideChar(CP_ACP, 0, in.data(), static_cast<int>(in.size()), reinterpret_cast<wchar_t*>(&out[0]), n);
    return STRING(std::move(out));
}

std::string STRING::toNarrow(std::u16string_view text) {
    if (text.empty()) return std::string();
    const wchar_t* const wide = reinterpret_cast<const wchar_t*>(text.data());
    int n = WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
    return out;
}
