// What a document holds, as info and the loss report see it: the timeline
// alone (what a conversion's loss report reads) must give every target the
// losses that the whole description gives.
#include "app/conform/DocumentInfo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/conform/LossReport.h"
#include "tests/support/TestSupport.h"

namespace {

using qvapp::DocumentInfo;

std::string lossText(const std::vector<qvapp::Loss>& losses) {
    std::string text;
    for (const qvapp::Loss& l : losses)
        text += l.kind + " " + l.sequence + " " + l.track + " " + l.timecode + " " +
                std::to_string(l.frame) + " " + l.detail + "\n";
    return text;
}

std::string lossesOf(const DocumentInfo& info, const std::string& target, bool skipOffline) {
    std::string text;
    for (const qvapp::SequenceInfo& s : info.sequences)
        text += lossText(qvapp::targetLosses(qvapp::SequenceView(s), target, true, skipOffline));
    return text;
}

class DocumentInfoTest : public qvtest::StoreTest {};

// Every xmeml document of the corpus: transitions, speed changes, levels,
// multi-angle clips, nests, reels and log texts, offline and missing media.
TEST_F(DocumentInfoTest, TheTimelineAloneGivesEveryTargetTheSameLosses) {
    const std::string folder = std::string(QVXML_CORPUS) + "/xmeml";
    std::vector<std::string> names = qvtest::listDirectory(folder);
    ASSERT_GE(names.size(), 20u) << folder;
    int clips = 0, headOnly = 0;
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        EditStore project;
        ScopedCurrentStore scope(project);
        XML::ImportResult r = qvtest::importFile(folder + "/" + name);
        std::vector<Qv::Ptr<Edit>> sequences;
        for (const EditModifier& m : r.edits)
            if (Qv::Ptr<Edit> e = project.find(m.getCookie())) sequences.push_back(e);
        DocumentInfo whole = qvapp::describe(sequences, {}, folder + "/" + name, "xmeml");
        DocumentInfo timeline = qvapp::describeTimeline(sequences, "xmeml");
        ASSERT_EQ(whole.sequences.size(), timeline.sequences.size());
        for (std::size_t i = 0; i < whole.sequences.size(); ++i) {
            const qvapp::SequenceInfo &a = whole.sequences[i], &b = timeline.sequences[i];
            ASSERT_EQ(a.clips.size(), b.clips.size());
            for (std::size_t k = 0; k < a.clips.size(); ++k) {
                EXPECT_EQ(a.clips[k].media, b.clips[k].media);
                EXPECT_EQ(a.clips[k].recordIn, b.clips[k].recordIn);
            }
            EXPECT_EQ(a.tracks.size(), b.tracks.size());
            EXPECT_EQ(a.markers.size(), b.markers.size());
            clips += static_cast<int>(a.clips.size());
        }
        for (const char* target : {"xmeml", "fcpxml", "native", "otio", "edl"})
            for (bool skipOffline : {false, true})
                EXPECT_EQ(lossesOf(whole, target, skipOffline),
                          lossesOf(timeline, target, skipOffline))
                    << target << (skipOffline ? " --skip-offline" : "");
        // A conversion's report describes a sequence from its edit, to its
        // clips only where its target's losses read them: the same losses,
        // and the head that the writer's own losses are placed by.
        for (const Qv::Ptr<Edit>& e : sequences) {
            DocumentInfo body = qvapp::describeTimeline({e}, "xmeml");
            qvapp::SequenceView plain(e, "xmeml");
            ASSERT_EQ(body.sequences.size(), plain.head() ? 1u : 0u);
            if (!plain.head()) continue;
            const qvapp::SequenceInfo &a = body.sequences.front(), &b = *plain.head();
            EXPECT_EQ(a.name, b.name);
            EXPECT_EQ(a.ticks, b.ticks);
            EXPECT_EQ(a.startFrame, b.startFrame);
            EXPECT_EQ(a.dropFrame, b.dropFrame);
            EXPECT_EQ(a.duration, b.duration);
            EXPECT_EQ(a.tracks.size(), b.tracks.size());
            for (const char* target : {"xmeml", "fcpxml", "native", "otio", "edl"})
                for (bool skipOffline : {false, true}) {
                    qvapp::SequenceView view(e, "xmeml");
                    EXPECT_EQ(lossesOf(body, target, skipOffline),
                              lossText(qvapp::targetLosses(view, target, true, skipOffline)))
                        << target << (skipOffline ? " --skip-offline" : "");
                    if (!view.bodyDescribed()) ++headOnly;
                }
        }
    }
    EXPECT_GT(clips, 1000);
    EXPECT_GT(headOnly, 20);
}

// A multi-angle clip is an xmeml loss (when it cannot go out as a group),
// so a sequence that holds one is described to its clips for xmeml; one
// without is not, unless --skip-offline looks for clips to leave out.
TEST_F(DocumentInfoTest, MultiAngleClipsAreReadForXmeml) {
    Qv::Ptr<Edit> seq(new Edit(newCookie(kCookieEdit, 255)));
    StoredChannel video;
    video.cels.emplace_back();
    seq->channels.push_back(video);
    EditStore::current().add(seq);
    auto described = [&](const char* target, bool skipOffline) {
        qvapp::SequenceView view(seq, "xmeml");
        EXPECT_NE(view.head(), nullptr);
        qvapp::targetLosses(view, target, true, skipOffline);
        return view.bodyDescribed();
    };
    EXPECT_FALSE(described("xmeml", false));
    EXPECT_TRUE(described("xmeml", true));
    EXPECT_TRUE(described("fcpxml", false));
    EXPECT_FALSE(described("otio", false));
    seq->channels.back().cels.back().alternates.push_back({});
    EXPECT_TRUE(described("xmeml", false));
}

}  // namespace
