// What the files of the command's pipeline share beside the Commands class.
#pragma once

#include <string>

#include "app/checks/DocumentHead.h"

namespace qvapp {

// The whole of a file, or false with errno set.
bool readWhole(const std::string& path, std::string& out);

// Why the plug-in found no reader for a document, in the user's terms.
std::string whyUnreadable(const std::string& input, const DocumentHead& head);

// Hands the memory that the process has freed back to the system. What a
// reading or a writing frees (a document's bytes, the reader's index, the
// writer's lists) otherwise stays with the process, scattered between what
// lives on, and the next step's own memory comes on top of it: the peak of a
// long convert would be the sum of its steps instead of the largest of them.
void releaseFreedMemory();

// Lets the threads of a run share as many heaps as it has jobs side by side,
// instead of one heap each.
void shareHeapAmong(int jobs);

}  // namespace qvapp
