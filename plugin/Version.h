// The version of the plug-in, as the editor shows it and as native documents
// record it in their header.
#pragma once

namespace XML {
inline constexpr const char* kPluginVersion = "15.0.1.132926";
}
