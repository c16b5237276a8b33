// Where the command steps in around the plug-in. The plug-in reads and writes
// as the editor's plug-in does; a few things the command does for its user
// change what the plug-in is handed or where it looks, without the plug-in
// knowing. Each of them lives here, so that someone reading the readers and
// writers can learn all of it in one place:
//
// - MendedVersion: a document whose version attribute is only misspelt is
//   handed to the plug-in mended, and one in ISO-8859-1 or Windows-1252 as
//   UTF-8, through the host's file overlay.
// - LeaveOutShotsWithoutFiles: before an fcpxml export, shots without a media
//   file are switched off, so that one such shot does not end the export.
// - --map-path: the rules are set in the host's file layer, where every
//   import looks for media; and the locators that shots keep are moved by
//   the same rules after an import or a snapshot load.
#pragma once

#include <string>
#include <vector>

#include "app/checks/DocumentHead.h"
#include "app/conform/DocumentInfo.h"
#include "host/Edit.h"
#include "host/Logger.h"
#include "host/PathMap.h"

namespace qvapp {

// While it lives, a document whose version the readers would refuse only for
// its spelling reads as the version it means: the plug-in is handed the
// document with that one attribute mended (the host's file overlay stands in
// for the file at `path`), and the file is left as it is. Other editors write
// an xmeml version as a decimal ("5.0") where the readers want "5", and the
// native writer spells the attribute version="2" where its readers want
// Version="2.0"; refusing such a document would lose a timeline over a
// spelling (see mendVersion). `bytes`, when not empty, is the document as
// the command read and checked it (turned into UTF-8, see toUtf8), handed
// over in its place whether or not its version needs mending, so that the
// plug-in reads what was checked without reading the file again; `head` is
// the head of those bytes, and `converted` says that they are not the
// file's own.
class MendedVersion {
  public:
    MendedVersion(const std::string& input, const DocumentHead& head,
                  const LightweightString<wchar_t>& path, LoggerHandle log, std::string bytes = {},
                  bool converted = false);
    ~MendedVersion();
    MendedVersion(const MendedVersion&) = delete;
    MendedVersion& operator=(const MendedVersion&) = delete;

  private:
    LightweightString<wchar_t> path_;
    bool active_ = false;
};

// fcpxml names the media file of every shot, and the plug-in gives up a whole
// export for one shot without a file. While this guard lives, the shots that
// an edit plays and whose file is not known at all (a generator, media the
// document never located) are left out of the export instead: each becomes a
// gap, and the log says which. The shots are switched back on when it goes.
class LeaveOutShotsWithoutFiles {
  public:
    LeaveOutShotsWithoutFiles(const Qv::Ptr<Edit>& edit, LoggerHandle log);
    ~LeaveOutShotsWithoutFiles();
    LeaveOutShotsWithoutFiles(const LeaveOutShotsWithoutFiles&) = delete;
    LeaveOutShotsWithoutFiles& operator=(const LeaveOutShotsWithoutFiles&) = delete;

  private:
    std::vector<Qv::Ptr<Edit>> left_;
};

// --map-path for the whole run: the host's file layer applies the rules
// whenever the plug-in turns a document's locator into a file of this
// machine, so every import looks for media where the rules say. Set once,
// before any work.
void mapMediaPaths(const PathMap& rules);
// After an import: the locator each new shot keeps (and an export writes
// again) moved by --map-path. Shots that were in `before` are left alone;
// the files shots play were found through the map already.
void mapImportedLocators(const IdentitySet& before);
// A loaded snapshot: every shot's media file and locator moved by --map-path.
void mapSnapshotLocators();

}  // namespace qvapp
