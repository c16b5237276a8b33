// What the files of the command's pipeline share beside the Commands class.
#pragma once

#include <string>

#include "app/checks/DocumentHead.h"

namespace qvapp {

// The whole of a file, or false with errno set.
bool readWhole(const std::string& path, std::string& out);

// Why the plug-in found no reader for a document, in the user's terms.
std::string whyUnreadable(const std::string& input, const DocumentHead& head);

}  // namespace qvapp
