// Every clip item of a document read either plays in the imported edit or is
// named in the loss report: the check that makes sure of it after each import.
//
// The check has its own list of the document's clip items, track by track,
// made apart from the reader: for xmeml from the scan that checks the
// document's bytes anyway (no second reading), for OpenTimelineIO from the
// model the reader parsed. It then looks at what the import made: an item
// plays when the cels over most of its record range play a shot, a sub-clip
// or a nested sequence (offline media plays: it can be relinked), and not
// black, silence or nothing; an item that lasts no frame has nothing to play,
// and one that ends before it starts cannot. An item that does not play is
// accounted for by a
// reader's loss of its sequence and track, placed within its range, of a kind
// that says its material does not play (see kindReplacesMaterial). What is
// left is a loss of its own, of the kind "unaccounted".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/checks/WellFormed.h"
#include "app/conform/LossReport.h"
#include "host/Edit.h"

namespace QvOtio {
struct Document;
}

namespace qvapp {

// The texts of a list's items, each kept once in blocks that never move, so
// that an item holds two views (16 bytes each) instead of two strings of its
// own: a long document lists hundreds of thousands of items, and the list
// lives through the whole import.
class ListedTexts {
  public:
    // A lasting copy of `text`.
    std::string_view keep(std::string_view text);

  private:
    static constexpr std::size_t kBlock = 1 << 16;
    std::vector<std::unique_ptr<char[]>> blocks_;
    std::size_t used_ = kBlock;  // in the last block of kBlock bytes
};

struct ListedItem {
    // As the document names it, kept by the list's texts (or a literal); the
    // id may be empty.
    std::string_view name, id;
    std::int64_t start = 0, end = 0;  // record frames from the sequence's start
};

struct ListedTrack {
    std::string name;  // "V1", "A2": as the document numbers its tracks
    bool video = true;
    std::vector<ListedItem> items;
};

struct ListedSequence {
    std::string name;
    // A second name the reader may give it (xmeml: the first name found at
    // any depth, when the sequence's own comes later).
    std::string otherName;
    double timebase = 0;  // frames a cel second holds; 0 when the document says none
    bool dropFrame = false;
    std::int64_t startFrame = 0;      // the frame number of its first frame, for timecode
    std::vector<ListedTrack> tracks;  // video V1 first, then audio A1 first
};

struct DocumentClips {
    std::vector<ListedSequence> sequences;
    // What the items' names and ids view; copies of the list share it.
    std::shared_ptr<ListedTexts> texts = std::make_shared<ListedTexts>();
};

// Lists the clip items of an xmeml document as a scan of its bytes sees its
// elements (attach it to checkXml). A clip item counts when it stands on a
// track of a sequence that is not nested in a clip item, and names media: it
// holds a file, a nested sequence or a multiclip, or names a master clip of
// the document, or carries nothing but the id of such a clip item before it.
class XmemlClipLister : public XmlObserver {
  public:
    XmemlClipLister();
    ~XmemlClipLister() override;
    void start(std::string_view name, std::string_view attributes, std::size_t offset,
               int depth) override;
    void end(std::string_view name, std::string_view inner, int depth) override;
    // The list, once the scan is over.
    DocumentClips take();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// Lists the clips and nested stacks of the Video and Audio tracks of each
// timeline of an OpenTimelineIO document, as its model holds them.
DocumentClips listOtioClips(const QvOtio::Document& doc);

struct Accounting {
    int items = 0;     // clip items listed
    int empty = 0;     // of them, those that last no frame (between two transitions, say)
    int playing = 0;   // those that play
    int reported = 0;  // those that do not, and that a loss names
    std::vector<Loss> unaccounted;  // the rest
};

// Checks each listed item against the sequences an import made (`made`, in
// the order it made them) and the losses of reading.
Accounting accountFor(const DocumentClips& clips, const std::vector<Qv::Ptr<Edit>>& made,
                      const std::vector<Loss>& losses);

}  // namespace qvapp
