#include "app/checks/DocumentHead.h"

#include <cstring>
#include <fstream>
#include <string_view>

#include "host/XMLParser.h"

namespace qvapp {

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool isNameChar(char c) {
    return !isSpace(c) && c != '>' && c != '/' && c != '=' && c != '<' && c != '"' && c != '\'';
}

// Skips "<!...>" from `at`, past quoted text and an internal subset in
// brackets; npos when it does not end.
std::size_t skipDeclaration(std::string_view text, std::size_t at) {
    const char* after = endOfDeclaration(text.data() + at, text.data() + text.size());
    return after ? static_cast<std::size_t>(after - text.data()) : std::string_view::npos;
}

}  // namespace

// The prolog of a real document is short; a megabyte leaves room for a long
// document type.
constexpr std::size_t kHeadBytes = 1 << 20;
// What is read first: the whole prolog of nearly every document.
constexpr std::size_t kFirstBytes = 1 << 14;

namespace {

// The head of `text`. `ranOut` is set when the text ended before the head
// did, so that more of the document could say more.
DocumentHead parseHead(std::string_view text, bool& ranOut) {
    DocumentHead head;
    ranOut = false;
    text = text.substr(0, kHeadBytes);
    std::size_t at = text.starts_with("\xEF\xBB\xBF") ? 3 : 0;
    for (;;) {
        while (at < text.size() && isSpace(text[at]))
            ++at;
        if (at >= text.size() || text[at] != '<') {
            ranOut = at >= text.size();
            return head;
        }
        std::string_view rest = text.substr(at);
        std::size_t next;
        if (rest.starts_with("<?")) {
            next = text.find("?>", at + 2);
            if (next != std::string_view::npos) next += 2;
        } else if (rest.starts_with("<!--")) {
            next = text.find("-->", at + 4);
            if (next != std::string_view::npos) next += 3;
        } else if (rest.starts_with("<!")) {
            next = skipDeclaration(text, at);
        } else {
            break;
        }
        if (next == std::string_view::npos) {
            ranOut = true;
            return head;
        }
        at = next;
    }

    std::size_t name = at + 1;
    std::size_t end = name;
    while (end < text.size() && isNameChar(text[end]))
        ++end;
    head.root = std::string(text.substr(name, end - name));
    // The first attribute: a name, '=', a quoted value.
    at = end;
    while (at < text.size() && isSpace(text[at]))
        ++at;
    std::size_t attr = at;
    head.attributeOffset = attr;
    while (at < text.size() && isNameChar(text[at]))
        ++at;
    if (at > attr) {
        head.firstAttribute = std::string(text.substr(attr, at - attr));
        while (at < text.size() && isSpace(text[at]))
            ++at;
        if (at < text.size() && text[at] == '=') {
            ++at;
            while (at < text.size() && isSpace(text[at]))
                ++at;
            if (at < text.size() && (text[at] == '"' || text[at] == '\'')) {
                std::size_t close = text.find(text[at], at + 1);
                if (close != std::string_view::npos) {
                    head.valueOffset = at + 1;
                    head.valueLength = close - at - 1;
                    head.firstValue = std::string(text.substr(head.valueOffset, head.valueLength));
                } else {
                    ranOut = true;
                }
            }
        }
    }
    if (at >= text.size()) ranOut = true;
    if (head.root == "QVXML")
        head.kind = DocumentHead::Kind::Native;
    else if (head.root == "xmeml")
        head.kind = DocumentHead::Kind::Xmeml;
    else if (head.root == "fcpxml")
        head.kind = DocumentHead::Kind::Fcpxml;
    return head;
}

}  // namespace

DocumentHead readDocumentHead(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    // The first bytes nearly always hold the whole head; the rest of the
    // head's bytes are read only when they did not.
    std::string buffer(kFirstBytes, '\0');
    in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    buffer.resize(static_cast<std::size_t>(in.gcount()));
    bool ranOut = false;
    DocumentHead head = parseHead(buffer, ranOut);
    if (!ranOut || buffer.size() < kFirstBytes) return head;
    std::size_t had = buffer.size();
    buffer.resize(kHeadBytes);
    in.read(buffer.data() + had, static_cast<std::streamsize>(kHeadBytes - had));
    buffer.resize(had + static_cast<std::size_t>(in.gcount()));
    return parseHead(buffer, ranOut);
}

DocumentHead readDocumentHead(std::string_view text) {
    bool ranOut = false;
    return parseHead(text, ranOut);
}

VersionMend mendVersion(const DocumentHead& head) {
    VersionMend m;
    const std::string& v = head.firstValue;
    if (head.valueLength == 0) return m;
    if (head.kind == DocumentHead::Kind::Xmeml && head.firstAttribute == "version") {
        // "5.0", "4.00": a whole version from 1 to 5 written as a decimal.
        if (v.size() < 3 || v[0] < '1' || v[0] > '5' || v[1] != '.') return m;
        for (std::size_t i = 2; i < v.size(); ++i)
            if (v[i] != '0') return m;
        m.becomes = std::string(1, v[0]);
        m.attribute = "version=\"" + m.becomes + "\"";
    } else if (head.kind == DocumentHead::Kind::Native && head.firstAttribute == "version" &&
               (v == "1" || v == "2" || v == "1.0" || v == "2.0")) {
        // The attribute as the native writer spells it.
        m.becomes = v.size() == 1 ? v + ".0" : v;
        m.attribute = "Version=\"" + m.becomes + "\"";
    } else {
        return m;
    }
    m.was = v;
    m.offset = head.attributeOffset;
    m.length = head.valueOffset + head.valueLength + 1 - head.attributeOffset;
    return m;
}

std::string formatName(DocumentHead::Kind kind) {
    switch (kind) {
        case DocumentHead::Kind::Native:
            return "native";
        case DocumentHead::Kind::Xmeml:
            return "xmeml";
        case DocumentHead::Kind::Fcpxml:
            return "fcpxml";
        case DocumentHead::Kind::Unknown:
            break;
    }
    return "";
}

}  // namespace qvapp
