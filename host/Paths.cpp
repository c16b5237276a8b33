#include "host/Paths.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "host/OS.h"

namespace {

using WS = LightweightString<wchar_t>;

bool isSeparator(wchar_t c) {
    return c == L'/' || c == L'\\';
}

bool isUNC(const WS& s) {
    return s.size() >= 2 && s[0] == L'\\' && s[1] == L'\\';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Where the scheme of a URL ends (the position of ':'), or npos.
size_t schemeEnd(std::wstring_view s) {
    size_t i = 0;
    while (i < s.size() && ((s[i] >= L'a' && s[i] <= L'z') || (s[i] >= L'A' && s[i] <= L'Z') ||
                            (i > 0 && ((s[i] >= L'0' && s[i] <= L'9') || s[i] == L'+' ||
                                       s[i] == L'-' || s[i] == L'.'))))
        ++i;
    // One letter is a drive ("C:\"), not a scheme.
    if (i < 2 || i >= s.size() || s[i] != L':') return std::wstring_view::npos;
    return i;
}

}  // namespace

bool locator_IsURL(const WS& locator) {
    std::wstring_view s = locator.view();
    size_t end = schemeEnd(s);
    if (end == std::wstring_view::npos) return false;
    std::wstring_view rest = s.substr(end + 1);
    if (rest.starts_with(L"//")) return true;
    // "file:/path" is a URL without an authority.
    std::wstring scheme(s.substr(0, end));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), ::towlower);
    return scheme == L"file";
}

bool locator_IsLocal(const WS& locator) {
    return !locator.empty() && !locator_IsURL(locator) && !isUNC(locator);
}

bool locator_LocalToUNC(WS& in, WS& out) {
    if (in.empty() || in[0] != L'/' || (in.size() > 1 && in[1] == L'/')) return false;
    std::wstring s = L"\\\\localhost";
    for (wchar_t c : in.view())
        s.push_back(c == L'/' ? L'\\' : c);
    out = WS(s);
    return true;
}

bool locator_UNCToURL(WS& in, WS& out) {
    if (!isUNC(in)) return false;
    std::wstring_view rest = in.view().substr(2);
    size_t slash = rest.find(L'\\');
    std::wstring host(rest.substr(0, slash));
    std::wstring path;
    if (slash != std::wstring_view::npos) {
        for (wchar_t c : rest.substr(slash))
            path.push_back(c == L'\\' ? L'/' : c);
    }
    if (path.empty()) path = L"/";
    LightweightString<char> encoded = percentEncode(pathBytes(WS(path)));
    out = WS(L"file://") + WS(host) + fromUTF8(encoded);
    return true;
}

bool locator_UNCToLocal(WS& in, WS& out) {
    if (!isUNC(in)) return false;
    std::wstring_view rest = in.view().substr(2);
    size_t slash = rest.find(L'\\');
    std::wstring_view host = rest.substr(0, slash);
    if (!host.empty() && host != L"localhost") return false;
    std::wstring path;
    if (slash != std::wstring_view::npos) {
        for (wchar_t c : rest.substr(slash))
            path.push_back(c == L'\\' ? L'/' : c);
    }
    if (path.empty()) path = L"/";
    out = WS(path);
    return true;
}

LightweightString<char> percentEncode(const LightweightString<char>& text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (char ch : text.view()) {
        unsigned char c = static_cast<unsigned char>(ch);
        bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '.' || c == '_' || c == '~' || c == '/';
        if (keep) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(hex[c >> 4]);
            out.push_back(hex[c & 15]);
        }
    }
    return LightweightString<char>(out);
}

LightweightString<char> percentDecode(const LightweightString<char>& text) {
    std::string out;
    std::string_view s = text.view();
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size()) {
            int hi = hexValue(s[i + 1]);
            int lo = hexValue(s[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out.push_back(static_cast<char>(hi * 16 + lo));
                i += 2;
                continue;
            }
        }
        out.push_back(s[i]);
    }
    return LightweightString<char>(out);
}

WS locatorToPlatformForm(const WS& locator) {
    std::wstring_view s = locator.view();
    size_t end = schemeEnd(s);
    if (end == std::wstring_view::npos) return locator;
    std::wstring scheme(s.substr(0, end));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), ::towlower);
    if (scheme != L"file") return locator;
    std::wstring_view rest = s.substr(end + 1);
    std::wstring_view host;
    if (rest.starts_with(L"//")) {
        rest.remove_prefix(2);
        size_t slash = rest.find(L'/');
        host = rest.substr(0, slash);
        rest = slash == std::wstring_view::npos ? std::wstring_view() : rest.substr(slash);
    }
    // The escapes stand for the bytes of the path, which need not be UTF-8.
    WS path = pathFromBytes(percentDecode(pathBytes(WS(rest))).view());
    if (path.empty()) path = WS(L"/");
    if (host.empty() || host == L"localhost") return path;
    std::wstring unc = L"\\\\" + std::wstring(host);
    for (wchar_t c : path.view())
        unc.push_back(c == L'/' ? L'\\' : c);
    return WS(unc);
}

WS localPathToURL(const WS& path) {
    WS in = path, unc, url;
    if (!locator_LocalToUNC(in, unc) || !locator_UNCToURL(unc, url)) return {};
    return url;
}

WS getPath(const WS& path) {
    std::wstring_view s = path.view();
    size_t i = s.size();
    while (i > 0 && !isSeparator(s[i - 1]))
        --i;
    if (i == 0) return {};
    // Keep a lone root separator; drop a trailing one otherwise.
    if (i == 1) return WS(s.substr(0, 1));
    return WS(s.substr(0, i - 1));
}

WS stripPath(const WS& path) {
    std::wstring_view s = path.view();
    size_t i = s.size();
    while (i > 0 && !isSeparator(s[i - 1]))
        --i;
    return WS(s.substr(i));
}

WS stripExtension(const WS& path) {
    std::wstring_view s = path.view();
    size_t dot = s.rfind(L'.');
    if (dot == std::wstring_view::npos) return path;
    for (size_t i = dot; i < s.size(); ++i)
        if (isSeparator(s[i])) return path;
    // A name that only starts with a dot (".profile") has no extension.
    if (dot == 0 || isSeparator(s[dot - 1])) return path;
    return WS(s.substr(0, dot));
}

WS getExtension(const WS& path, bool withDot) {
    WS stem = stripExtension(path);
    if (stem.size() == path.size()) return {};
    return path.substr(stem.size() + (withDot ? 0 : 1));
}

WS joinPath(const WS& dir, const WS& name) {
    if (dir.empty()) return name;
    if (isSeparator(dir.back())) return dir + name;
    return dir + L"/" + name;
}

WS pathFromBytes(std::string_view bytes) {
    std::wstring out;
    out.reserve(bytes.size());
    size_t i = 0;
    while (i < bytes.size()) {
        unsigned char b = static_cast<unsigned char>(bytes[i]);
        if (b < 0x80) {
            out.push_back(static_cast<wchar_t>(b));
            ++i;
            continue;
        }
        // The length of the sequence that this byte begins, and the smallest
        // value it may encode (longer forms of smaller values are not UTF-8).
        size_t extra = (b & 0xE0) == 0xC0 ? 1 : (b & 0xF0) == 0xE0 ? 2 : (b & 0xF8) == 0xF0 ? 3 : 0;
        static const char32_t minimum[4] = {0, 0x80, 0x800, 0x10000};
        char32_t c = b & (0x3F >> extra);
        bool ok = extra > 0;
        for (size_t k = 1; ok && k <= extra; ++k) {
            if (i + k >= bytes.size()) {
                ok = false;
                break;
            }
            unsigned char cb = static_cast<unsigned char>(bytes[i + k]);
            if ((cb & 0xC0) != 0x80) ok = false;
            c = (c << 6) | (cb & 0x3F);
        }
        if (ok && c >= minimum[extra] && c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF)) {
            out.push_back(static_cast<wchar_t>(c));
            i += extra + 1;
        } else {
            out.push_back(static_cast<wchar_t>(0xDC00 + b));
            ++i;
        }
    }
    return WS(out);
}

std::string pathBytes(const WS& path) {
    std::string out;
    out.reserve(path.size());
    for (wchar_t w : path.view()) {
        char32_t c = static_cast<char32_t>(w);
        if (c >= 0xDC80 && c <= 0xDCFF) {
            out.push_back(static_cast<char>(c - 0xDC00));
            continue;
        }
        appendUTF8(out, c);
    }
    return out;
}

bool fileExists(const WS& path) {
    if (path.empty()) return false;
    struct stat st;
    return ::stat(pathBytes(path).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isDirectory(const WS& path) {
    if (path.empty()) return false;
    struct stat st;
    return ::stat(pathBytes(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

namespace {

void listDirectory(const std::string& dir, const std::string& wanted, WStringList& found,
                   unsigned flags, int depth) {
    DIR* d = ::opendir(dir.empty() ? "." : dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());

    std::vector<std::string> subdirectories;
    for (const std::string& name : names) {
        std::string full = dir.empty() ? name : (dir.back() == '/' ? dir + name : dir + "/" + name);
        struct stat st;
        if (::lstat(full.c_str(), &st) != 0) continue;
        bool isDir = S_ISDIR(st.st_mode);
        if (isDir) subdirectories.push_back(full);
        bool kind = isDir ? (flags & kDirIncludeDirectories) : (flags & kDirIncludeFiles);
        if (kind && name == wanted) found.push_back(pathFromBytes(full));
    }
    // Symbolic links to directories are not followed (lstat), so the walk
    // cannot loop; the depth bound keeps a search near the document.
    if ((flags & kDirRecurse) && depth < 8) {
        for (const std::string& sub : subdirectories)
            listDirectory(sub, wanted, found, flags, depth + 1);
    }
}

}  // namespace

void getDirectoryContents(const WS& dir, const WS& name, WStringList& found, unsigned int flags) {
    if (name.empty()) return;
    listDirectory(pathBytes(dir), pathBytes(name), found, flags, 0);
}

namespace Qv::FilespecUtils {

WS makeValidFilespec(const WS& directory, const WS& stem, const WS& extension, bool allowSeparators,
                     wchar_t replacement) {
    auto clean = [&](std::wstring_view part, bool separatorsOk) {
        std::wstring out;
        for (wchar_t c : part) {
            bool bad = c < 0x20 || c == 0x7F || c == L':' || c == L'*' || c == L'?' || c == L'"' ||
                       c == L'<' || c == L'>' || c == L'|' || (!separatorsOk && isSeparator(c));
            out.push_back(bad ? replacement : c);
        }
        return out;
    };
    std::wstring name = clean(stem.view(), allowSeparators);
    // Names made only of full stops would climb out of (or stay at) the
    // directory itself.
    if (name.empty() || name.find_first_not_of(L'.') == std::wstring::npos)
        name = std::wstring(std::max<size_t>(name.size(), 1), replacement);
    if (allowSeparators) {
        // Separators are allowed inside the stem, but no part may be "..".
        std::wstring rebuilt, part;
        for (size_t i = 0; i <= name.size(); ++i) {
            if (i == name.size() || isSeparator(name[i])) {
                if (part == L"..") part = std::wstring(2, replacement);
                rebuilt += part;
                if (i < name.size()) rebuilt.push_back(L'/');
                part.clear();
            } else {
                part.push_back(name[i]);
            }
        }
        name = rebuilt;
        while (!name.empty() && isSeparator(name.front()))
            name.erase(name.begin());
    }
    name += clean(extension.view(), false);
    return joinPath(directory, WS(name));
}

}  // namespace Qv::FilespecUtils
