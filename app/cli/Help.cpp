#include "app/cli/Help.h"

namespace qvapp {

const char* const kUsage =
    "usage: qvxml COMMAND [OPTIONS] ...\n"
    "\n"
    "Carries edit timelines between editors as XML, OpenTimelineIO and edit decision lists.\n"
    "\n"
    "commands:\n"
    "  convert INPUT... --to FORMAT [-o DIR]      import documents and write them as FORMAT\n"
    "  import INPUT... [--snapshot OUT.json] [--report FILE]\n"
    "                                              import documents and say what was made\n"
    "  export SNAPSHOT.json --to FORMAT [--edit NAME] [-o DIR] [--name FILE]\n"
    "                                              write an edit of a project snapshot\n"
    "  rate INPUT                                  the frame rate of a document's first sequence\n"
    "  info INPUT... [--clips] [--media] [--markers] [--json]\n"
    "                                              what is in a timeline and where its media is\n"
    "  draw INPUT -o FILE.svg|FILE.html            a picture of each sequence\n"
    "  relink SNAPSHOT.json --search DIR...        find offline media and link it\n"
    "\n"
    "FORMAT is native (QVXML 2.0), xmeml (Final Cut Pro 7, Premiere, Resolve), fcpxml,\n"
    "otio (OpenTimelineIO .otio) or edl (CMX 3600 edit decision lists); .otio files and\n"
    "lists are read too, by content, whatever the file's name.\n"
    "Run 'qvxml COMMAND --help' for a command's options, 'qvxml --version' for the version.\n"
    "The user guide is docs/user-guide.md.\n";

const char* const kCommonOptions =
    "  --overwrite       replace files that exist already (never one of the inputs)\n"
    "  --lenient         read documents that are not well formed as far as they go, and\n"
    "                    write what cannot be trusted all the same (the exit status says so)\n"
    "  --set KEY=VALUE   set a configuration key or preference (see the user guide):\n"
    "                    enableXml, suppress_FCP7XML_multiclip_group, xml_export_limit_to_6dB,\n"
    "                    media_scanning_behaviour, xml_legacy_interchange,\n"
    "                    \"Import : Suppress relink existing material\"\n"
    "  --quiet           say nothing but errors\n"
    "  --verbose         show the whole import and export log\n"
    "  --help            this text\n";

const char* helpFor(const std::string& command) {
    if (command == "convert")
        return "usage: qvxml convert INPUT... --to native|xmeml|fcpxml|otio|edl [-o DIR] "
               "[--silent]\n"
               "\n"
               "Imports each document into a fresh project and writes every sequence it made\n"
               "(or its shots, when it made none) as FORMAT into DIR (default: the current\n"
               "folder), one file per sequence, named after it. Prints each file written.\n"
               "INPUT may be QVXML, xmeml, OpenTimelineIO (.otio) or an edit decision list.\n"
               "\n"
               "  --to FORMAT       the format to write\n"
               "  -o, --output DIR  where to write\n"
               "  --silent          export without messages; also lets a sequence that is one\n"
               "                    multi-angle group go out as an xmeml multiclip\n"
               "  --skip-offline    leave shots whose media is offline out of the export\n"
               "  -j, --jobs N      convert N documents side by side (0: one per processor)\n"
               "  --report FILE     write what did not cross as JSON (a summary goes to\n"
               "                    standard error in any case)\n"
               "  --map-path FROM=TO  look for media under TO where the document says FROM\n"
               "                    (paths, drives, UNC names, file:// URLs; repeatable)\n"
               "  --rate RATE       read edit decision lists at RATE (25, 29.97, 23.976, ...)\n"
               "  --edl-track V1    --to edl: write that video track's list alone\n"
               "  --edl-reel-length N  --to edl: cut reels to N characters (CMX: 8)\n";
    if (command == "import")
        return "usage: qvxml import INPUT... [--snapshot OUT.json] [--report FILE]\n"
               "\n"
               "Imports the documents (QVXML, xmeml, OpenTimelineIO or edit decision lists)\n"
               "into one project, linking their media, importing it or marking it offline, and\n"
               "prints what was made. With --snapshot the project is written as JSON (see\n"
               "docs/snapshot.md). Every clip item of a document either plays in the project\n"
               "or is a loss of reading; a summary of the losses goes to standard error.\n"
               "\n"
               "  --snapshot FILE   write the project as JSON (- : to standard output)\n"
               "  --report FILE     write what reading lost as JSON, each loss with its\n"
               "                    sequence, track and timecode (see the user guide)\n"
               "  --map-path FROM=TO  look for media under TO where the document says FROM\n"
               "  --rate RATE       read edit decision lists at RATE (25, 29.97, 23.976, ...)\n";
    if (command == "export")
        return "usage: qvxml export SNAPSHOT.json --to native|xmeml|fcpxml|otio|edl [--edit NAME]\n"
               "                    [-o DIR] [--name FILE] [--silent]\n"
               "\n"
               "Loads a project snapshot (see docs/snapshot.md) and writes one of its edits:\n"
               "the one named by --edit, or its only sequence.\n"
               "\n"
               "  --edit NAME       the edit to write, by name or identity\n"
               "  --name FILE       the file's name; the format's extension replaces its own\n"
               "  -o, --output DIR  where to write\n"
               "  --skip-offline    leave shots whose media is offline out of the export\n"
               "  --report FILE     write what did not cross as JSON\n"
               "  --map-path FROM=TO  move media locators before writing (repeatable)\n"
               "  --edl-track V1    --to edl: write that video track's list alone\n"
               "  --edl-reel-length N  --to edl: cut reels to N characters (CMX: 8)\n";
    if (command == "info")
        return "usage: qvxml info INPUT... [--clips] [--media] [--markers] [--json] [-j N]\n"
               "\n"
               "Reads each document (QVXML, xmeml, OpenTimelineIO, an edit decision list or a\n"
               "snapshot) and tells, for each sequence, its rate, start and length, its tracks,\n"
               "clips, transitions, gaps, markers and speed changes, and the media it plays:\n"
               "imported, found, linked or offline, and where offline media was looked for.\n"
               "Nothing is written.\n"
               "\n"
               "  --clips, --media, --markers   list them\n"
               "  --json            everything, as JSON (see the user guide)\n"
               "  -j, --jobs N      read N documents side by side (0: one per processor)\n"
               "  --map-path FROM=TO  look for media under TO where the document says FROM\n"
               "  --rate RATE       read edit decision lists at RATE (25, 29.97, 23.976, ...)\n";
    if (command == "draw")
        return "usage: qvxml draw INPUT -o FILE.svg|FILE.html\n"
               "\n"
               "Draws each sequence: a timecode ruler, a lane per track, clips as labelled\n"
               "boxes (offline media in red), transitions, gaps and markers. An .html file\n"
               "also holds the info tables and what reading the document passed over; it\n"
               "opens from disk and needs nothing else.\n"
               "\n"
               "  --map-path FROM=TO  look for media under TO where the document says FROM\n"
               "  --rate RATE       read edit decision lists at RATE (25, 29.97, 23.976, ...)\n";
    if (command == "relink")
        return "usage: qvxml relink SNAPSHOT.json --search DIR... [-o OUT.json] [--dry-run]\n"
               "\n"
               "Looks in the folders (and the folders below them) for the files of the\n"
               "snapshot's offline shots: by file name, and where several files share the\n"
               "name, by picture size, length and sound channels. Says what it matched, and\n"
               "writes the relinked snapshot beside the one read, as NAME.relinked.json (or\n"
               "to OUT.json); the snapshot read is never written over.\n"
               "\n"
               "  --search DIR      a folder to look in (repeatable)\n"
               "  -o FILE           write the relinked snapshot there instead\n"
               "  --dry-run         say what would be linked; write nothing\n"
               "  --map-path FROM=TO  move locators first\n";
    if (command == "rate")
        return "usage: qvxml rate INPUT [--rate RATE]\n"
               "\n"
               "Prints the frame rate of the document's first sequence, such as 25 or 29.97.\n"
               "An edit decision list does not say its rate: the rate it is read at is\n"
               "printed, with a warning that says how it was told (--rate gives it).\n";
    return nullptr;
}

}  // namespace qvapp
