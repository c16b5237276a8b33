// Path mapping: the rules by which media moves from the folders a timeline
// was cut with to the folders of the machine it is finished on, the way a
// conform editor maps "/Volumes/Media" to "/mnt/media".
//
// A rule maps a folder to a folder. Folders and locators may be written in
// any of the forms a document uses: a POSIX path, a Windows path with a drive
// letter ("D:\Media", "D:/Media"), a UNC name ("\\server\share\Media") or a
// file URL ("file:///Volumes/Media", "file://localhost/D%3a/Media",
// "file://server/share/Media"), with or without percent escapes. A rule
// matches by whole folder names: "/media" holds "/media/a.mov", not
// "/media2/a.mov". Drive letters, UNC names and folders on them compare
// without regard to case, as Windows does; POSIX paths with it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/LightweightString.h"

struct PathRule {
    LightweightString<wchar_t> from, to;
};

class PathMap {
  public:
    // Parses "FROM=TO" (split at the first '='). False, with a sentence in
    // `why`, when either side is empty or is no folder that a locator can
    // name.
    static bool parseRule(const std::string& text, PathRule& rule, std::string& why);

    void add(const PathRule& rule) { rules_.push_back(rule); }
    bool empty() const { return rules_.empty(); }
    const std::vector<PathRule>& rules() const { return rules_; }

    // The locator moved by the first rule that holds it, in the locator's own
    // form: a URL stays a URL, its path percent-encoded as URLs carry it (a
    // drive letter keeps the spelling it had: "D:" or "D%3a"); a path becomes
    // a path in the form of the rule's destination. A locator no rule holds is
    // returned as it is, and so is one that already lies in the destination
    // of a rule whose destination lies inside its source ("/media" to
    // "/media/archive"), so that mapping twice moves nothing further.
    LightweightString<wchar_t> apply(const LightweightString<wchar_t>& locator) const;

  private:
    std::vector<PathRule> rules_;
};

// The map that the host's file system applies when it turns a document's
// locator into a file of this machine (OSPrivate()->fileSystem()->platformForm),
// so that an import looks for media where the rules say. An application sets
// it before its work starts; empty by default.
void setLocatorMap(const PathMap& map);
std::shared_ptr<const PathMap> locatorMap();
