#include "app/checks/WellFormed.h"

#include <cstring>

#include "app/checks/XmlScanner.h"

namespace qvapp {

XmlPlace placeOf(std::string_view text, std::size_t offset) {
    if (offset > text.size()) offset = text.size();
    XmlPlace p;
    p.offset = offset;
    p.line = 1;
    std::size_t lineStart = 0;
    const char* base = text.data();
    for (const char* q = base; q < base + offset;) {
        const void* nl = std::memchr(q, '\n', static_cast<std::size_t>(base + offset - q));
        if (!nl) break;
        ++p.line;
        q = static_cast<const char*>(nl) + 1;
        lineStart = static_cast<std::size_t>(q - base);
    }
    // Characters, not bytes: continuation bytes of UTF-8 do not count.
    p.column = 1;
    for (std::size_t i = lineStart; i < offset; ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) ++p.column;
    return p;
}

XmlCheck checkXml(std::string_view text, const XmlLimits& limits, XmlObserver* observer) {
    return scan::Scanner<XmlObserver>(text, limits, observer).run();
}

}  // namespace qvapp
