// The host's configuration and user preferences.
//
// Configuration keys are integers read with a default; preferences are named
// booleans. The application fills both from its command line, tests set them
// directly. Both are process-wide and safe to read from any thread.
#pragma once

#include "host/LightweightString.h"

int config_int(const char* key, int defaultValue);
void set_config_int(const char* key, int value);
void clear_config_int(const char* key);

class EditorPreferences {
  public:
    bool getPreference(const LightweightString<char>& key, bool defaultValue) const;
    void setPreference(const LightweightString<char>& key, bool value);
    void clearPreference(const LightweightString<char>& key);
};

EditorPreferences& prefs();

// Restores every configuration key and preference to "not set"; for tests.
void resetConfiguration();
