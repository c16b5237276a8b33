// Whether a document is well-formed XML, and whether it is safe to read.
//
// The check is one forward scan, apart from the plug-in's own reading, so that
// the command can refuse a document that is cut short, holds a NUL byte or
// has tags that do not match, and say where; and one quick pass over the
// bytes for what XML 1.0 does not allow in a document (bytes that are not
// UTF-8, control characters). It jumps from markup to markup
// and keeps a stack of the open elements; it costs a small part of an import
// (bench/app measures it).
//
// Besides well-formedness it watches two limits that keep the reading of any
// document in bounded memory and stack, whether or not the document is well
// formed: a nesting depth that no real document reaches, and, for a kind of
// document that names them, elements that its format never nests in one
// another (in QVXML an Edit inside an Edit). Past the first fault the scan
// goes on as the host's XML reader would read the rest, so that the limits
// hold for what the plug-in will see when a damaged document is read anyway.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qvapp {

struct XmlPlace {
    std::size_t offset = 0;  // bytes from the start of the text
    std::size_t line = 0;    // from 1
    std::size_t column = 0;  // from 1, in characters
};

// The place of a byte offset in a text.
XmlPlace placeOf(std::string_view text, std::size_t offset);

struct XmlFault {
    bool found = false;
    XmlPlace at;
    std::string what;  // a clause that says what is wrong there
    explicit operator bool() const { return found; }
};

struct XmlLimits {
    unsigned maxDepth = 256;
    // Groups of element names of which no one may stand inside another of its
    // group, and the name of the format that never does so, for the message.
    std::vector<std::vector<std::string>> unnested;
    std::string format;
};

struct XmlCheck {
    XmlFault malformed;  // the first place where the text is not well formed
    XmlFault limit;      // the first place where reading it would pass a limit
};

// Sees the elements of a text as the scan meets them, so that a look at a
// document's content costs no scan of its own. Every element that starts
// also ends: after a fault as the host's reader cuts it, at the end of the
// text if it is never closed.
class XmlObserver {
  public:
    virtual ~XmlObserver() = default;
    // `attributes`: the text of the start tag after the name; `depth`: 1 for
    // the root, one more for each element around.
    virtual void start(std::string_view name, std::string_view attributes, std::size_t offset,
                       int depth) = 0;
    // `inner`: the element's inner text, raw, markup kept.
    virtual void end(std::string_view name, std::string_view inner, int depth) = 0;
};

XmlCheck checkXml(std::string_view text, const XmlLimits& limits, XmlObserver* observer = nullptr);

}  // namespace qvapp
