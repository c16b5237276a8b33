// info: a timeline described as text for a person or as JSON for a script
// (the user guide documents the JSON).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "app/conform/DocumentInfo.h"

namespace qvapp {

nlohmann::json infoJson(const DocumentInfo& document);
// The summary of each sequence and of the media, with the lists asked for.
std::string infoText(const DocumentInfo& document, bool clips, bool media, bool markers);

}  // namespace qvapp
