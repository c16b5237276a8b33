#include "host/Config.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace {
struct Settings {
    std::mutex mutex;
    // Looked up by the caller's own text, with no string made for it: the
    // writers ask for a setting once per clip.
    std::map<std::string, int, std::less<>> ints;
    std::map<std::string, bool, std::less<>> bools;
};
Settings& settings() {
    static Settings s;
    return s;
}
}  // namespace

int config_int(const char* key, int defaultValue) {
    Settings& s = settings();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.ints.find(std::string_view(key ? key : ""));
    return it == s.ints.end() ? defaultValue : it->second;
}

void set_config_int(const char* key, int value) {
    Settings& s = settings();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.ints[key ? key : ""] = value;
}

void clear_config_int(const char* key) {
    Settings& s = settings();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.ints.erase(key ? key : "");
}

bool EditorPreferences::getPreference(const LightweightString<char>& key, bool defaultValue) const {
    Settings& s = settings();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.bools.find(key.view());
    return it == s.bools.end() ? defaultValue : it->second;
}

void EditorPreferences::setPreference(const LightweightString<char>& key, bool value) {
    Settings& s = settings();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.bools[key.str()] = value;
}

void EditorPreferences::clearPreference(const LightweightString<char>& key) {
    Settings& s = settings();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.bools.erase(key.str());
}

EditorPreferences& prefs() {
    static EditorPreferences p;
    return p;
}

void resetConfiguration() {
    Settings& s = settings();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.ints.clear();
    s.bools.clear();
}
