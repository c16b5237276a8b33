// The text of a document's elements and attributes as the host's XML reader
// gives it to the readers: references decoded, CDATA unwrapped. The checks
// that look at a document without reading it use these, so that what they
// tell of a text is what the readers see.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qvapp {

// The text of an element from its raw inner text, as the host's reader gives
// it: references decoded and CDATA unwrapped for a leaf, raw for an element
// that holds elements.
std::string leafText(std::string_view inner);

struct Attribute {
    std::string_view name;
    std::string value;  // decoded
};
// The attributes of a start tag's text after its name, as many as wanted.
std::vector<Attribute> attributesOf(std::string_view text, std::size_t wanted);
// The value of an attribute, decoded, from the text of a start tag after its
// name; empty when the tag has none of that name.
std::string attributeValue(std::string_view attributes, std::string_view name);

}  // namespace qvapp
