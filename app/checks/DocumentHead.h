// What a document is, from its root element: the command's own look at an
// input before the plug-in reads it, so that it can say plainly why a file
// cannot be read. The plug-in decides by itself; this only words the answer.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qvapp {

struct DocumentHead {
    enum class Kind { Unknown, Native, Xmeml, Fcpxml };
    Kind kind = Kind::Unknown;
    std::string root;            // the root element's name; empty when none was found
    std::string firstAttribute;  // its first attribute: name and value as written
    std::string firstValue;
    std::size_t attributeOffset = 0;  // where the first attribute begins in the file
    std::size_t valueOffset = 0;      // where its value's text begins
    std::size_t valueLength = 0;
};

// Reads the head of a file: a byte order mark, the XML declaration, comments,
// processing instructions and a document type (with an internal subset) may
// stand before the root element.
DocumentHead readDocumentHead(const std::string& path);
// The same of a document's text, as it is handed to the readers.
DocumentHead readDocumentHead(std::string_view text);

// The name of an XML document's kind, as the conform tools name formats:
// "xmeml", "native", "fcpxml", or "" for none of these.
std::string formatName(DocumentHead::Kind kind);

// A document whose version the readers would refuse only for its spelling,
// mended: the first attribute as the readers want it written, and the byte
// range of the file it replaces. An xmeml version written as a decimal
// ("5.0") becomes version="5"; a QVXML document as the native writer writes
// it (version="2") becomes Version="2.0". Empty when there is nothing to mend.
struct VersionMend {
    std::string attribute;  // the whole attribute to put in place
    std::size_t offset = 0, length = 0;
    std::string was, becomes;  // the versions, for the message
};
VersionMend mendVersion(const DocumentHead& head);

}  // namespace qvapp
