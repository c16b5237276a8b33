// The encoding a document declares. The readers take UTF-8 only; a document
// written in ISO-8859-1 or Windows-1252 that says so in its XML declaration
// is turned into UTF-8 before they see it, so that its names arrive as they
// were written. Any other encoding is one the command cannot read.
#pragma once

#include <string>

namespace qvapp {

struct DeclaredEncoding {
    std::string name;        // as the declaration writes it; empty when it names none
    bool readable = true;    // UTF-8 (or ASCII), or converted to UTF-8
    bool converted = false;  // the bytes were converted, and the declaration says UTF-8
};

// Looks at the XML declaration of `bytes` (a byte order mark of UTF-16 or
// UTF-32 counts as a declaration of that encoding) and, for an encoding it
// converts, turns `bytes` into UTF-8 in place, the declaration rewritten to
// say so. Lines stay where they were.
DeclaredEncoding toUtf8(std::string& bytes);

}  // namespace qvapp
