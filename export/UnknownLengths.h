// Lengths that nobody knows, given before a shot is written. Part of the
// reader and writer core that the plug-in shares with the command's own
// writers (libqvxml_core).
#pragma once

#include <vector>

#include "host/ED2.h"
#include "host/Logger.h"

namespace XML {

// Gives every shot of `shots` whose length nobody knows (not a finite number,
// or below zero) the length that its uses in the edits of `users` need: as
// far into the shot as any cel plays, a transition after a cel included. A
// shot that nothing plays gets no length. Each repair is a warning and a loss
// record. No reader of a written file can use a length that is no number.
void giveUnknownLengths(CED2List& shots, const std::vector<CED2List*>& users, LoggerHandle log);

}  // namespace XML
