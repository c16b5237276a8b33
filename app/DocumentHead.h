// What a document is, from its root element: the command's own look at an
// input before the plug-in reads it, so that it can say plainly why a file
// cannot be read. The plug-in decides by itself; this only words the answer.
#pragma once

#include <cstddef>
#include <string>

namespace qvapp {

struct DocumentHead {
    enum class Kind { Unknown, Native, Xmeml, Fcpxml };
    Kind kind = Kind::Unknown;
    std::string root;            // the root element's name; empty when none was found
    std::string firstAttribute;  // its first attribute: name and value as written
    std::string firstValue;
    std::size_t valueOffset = 0;  // where that value's text begins in the file
    std::size_t valueLength = 0;
};

// Reads the head of a file: a byte order mark, the XML declaration, comments,
// processing instructions and a document type (with an internal subset) may
// stand before the root element.
DocumentHead readDocumentHead(const std::string& path);

// For an xmeml document whose version is written as a decimal ("5.0",
// "4.00"), the version as the readers know it ("5"); empty otherwise.
std::string plainXmemlVersion(const DocumentHead& head);

}  // namespace qvapp
