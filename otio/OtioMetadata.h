// What of a record OpenTimelineIO has no field for, in the "qvxml" metadata
// namespace, both ways; and the names of marker colours.
//
// A record's fields go out only when they differ from what a record has when
// nothing is known, and come back exactly: labels as the host writes them
// ("TC 3 NDF 01:00:00:00 103"), log texts, reels, the audio sample rate and
// the picture format.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/ED2.h"

namespace QvOtio {

// Labels, log texts, reels, and (with `mediaFields`) the sample rate and
// picture format of a record. A shot whose media is there leaves the last two
// to its media, which tells them itself.
void writeRecordFields(const CED2& record, nlohmann::ordered_json& into, bool mediaFields = true);
// The same, read back into a record. What cannot be used is said in
// `problems`, one phrase each.
void readRecordFields(const nlohmann::json& from, CED2& record, std::vector<std::string>& problems);

// A cue as an object, for the cues that have no marker of their own.
nlohmann::ordered_json cueToJson(const Ced2Cue& cue);
bool cueFromJson(const nlohmann::json& from, Ced2Cue& cue);

// The OpenTimelineIO colour name nearest to a 0xRRGGBB colour; `exact` says
// whether the name stands for that colour exactly.
const char* markerColourName(unsigned int rgb, bool& exact);
// The colour of a name; false for a name OpenTimelineIO does not have.
bool markerColourValue(const std::string& name, unsigned int& rgb);

// "#RRGGBB" and back.
std::string colourText(unsigned int rgb);
bool colourFromText(const std::string& text, unsigned int& rgb);

// Channel types as the namespace spells them.
const char* chanTypeName(EditChanType type);
EditChanType chanTypeOf(const std::string& name);

}  // namespace QvOtio
