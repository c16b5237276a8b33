#include "app/SourceScan.h"

#include <tinyxml2.h>

#include <cmath>
#include <cstring>
#include <map>

#include "host/FrameRate.h"
#include "host/Label.h"

namespace qvapp {

namespace {

using tinyxml2::XMLElement;

// ---- xmeml ----

const char* textOf(const XMLElement* e) {
    const char* t = e ? e->GetText() : nullptr;
    return t ? t : "";
}

// The first element of that name inside `e`, at any depth, in document order:
// how the reader finds a sequence's rate, name and timecode.
const XMLElement* firstInside(const XMLElement* e, const char* name) {
    for (const XMLElement* c = e ? e->FirstChildElement() : nullptr; c;
         c = c->NextSiblingElement()) {
        if (std::strcmp(c->Name(), name) == 0) return c;
        if (const XMLElement* found = firstInside(c, name)) return found;
    }
    return nullptr;
}

long numberOf(const XMLElement* e, long fallback) {
    const char* t = textOf(e);
    char* end = nullptr;
    double v = std::strtod(t, &end);
    return end == t ? fallback : static_cast<long>(truncateToInt64(v));
}

std::string effectName(const XMLElement* effect) {
    std::string name = textOf(effect ? effect->FirstChildElement("name") : nullptr);
    if (name.empty()) name = textOf(effect ? effect->FirstChildElement("effectid") : nullptr);
    return name.empty() ? "an unnamed effect" : name;
}

class XmemlScan {
  public:
    std::vector<Loss> run(const XMLElement* root) {
        collectFiles(root);
        walk(root);
        return std::move(out_);
    }

  private:
    // Every file defined in the document, by id: a clip may name a file that
    // another clip defines.
    void collectFiles(const XMLElement* e) {
        for (const XMLElement* c = e->FirstChildElement(); c; c = c->NextSiblingElement()) {
            if (std::strcmp(c->Name(), "file") == 0 && c->FirstChildElement() && c->Attribute("id"))
                files_.try_emplace(c->Attribute("id"), c);
            collectFiles(c);
        }
    }

    void walk(const XMLElement* e) {
        for (const XMLElement* c = e->FirstChildElement(); c; c = c->NextSiblingElement()) {
            if (std::strcmp(c->Name(), "sequence") == 0 && c->FirstChildElement("media"))
                sequence(c);
            walk(c);
        }
    }

    struct Place {
        std::string sequence;
        unsigned ticks = 25;
        bool dropFrame = false;
        long start = 0;
    };

    void sequence(const XMLElement* seq) {
        Place p;
        const XMLElement* name = firstInside(seq, "name");
        p.sequence = name ? textOf(name) : "";
        if (p.sequence.empty()) p.sequence = "NoName";
        if (const XMLElement* rate = firstInside(seq, "rate")) {
            long tb = numberOf(rate->FirstChildElement("timebase"), 25);
            if (tb > 0 && tb < 1000) p.ticks = static_cast<unsigned>(tb);
        }
        if (const XMLElement* tc = firstInside(seq, "timecode")) {
            p.dropFrame = std::strcmp(textOf(tc->FirstChildElement("displayformat")), "DF") == 0;
            p.start = numberOf(tc->FirstChildElement("frame"), 0);
        }
        const XMLElement* media = seq->FirstChildElement("media");
        for (const char* kind : {"video", "audio"}) {
            const XMLElement* group = media->FirstChildElement(kind);
            int n = 0;
            for (const XMLElement* t = group ? group->FirstChildElement("track") : nullptr; t;
                 t = t->NextSiblingElement("track"))
                track(p, t, std::string(kind[0] == 'v' ? "V" : "A") + std::to_string(++n),
                      kind[0] == 'v');
        }
    }

    void add(const Place& p, const std::string& track, long frame, const char* kind,
             std::string detail) {
        Loss l;
        l.kind = kind;
        l.origin = "reader";
        l.sequence = p.sequence;
        l.track = track;
        if (frame >= 0) {
            l.frame = frame;
            l.timecode = frameToTimecode(p.start + frame, p.ticks, p.dropFrame).str();
        }
        l.detail = std::move(detail);
        out_.push_back(std::move(l));
    }

    void track(const Place& p, const XMLElement* t, const std::string& name, bool video) {
        std::vector<const XMLElement*> items;
        for (const XMLElement* c = t->FirstChildElement(); c; c = c->NextSiblingElement())
            if (std::strcmp(c->Name(), "clipitem") == 0 ||
                std::strcmp(c->Name(), "transitionitem") == 0 ||
                std::strcmp(c->Name(), "generatoritem") == 0)
                items.push_back(c);
        for (std::size_t i = 0; i < items.size(); ++i) {
            const XMLElement* item = items[i];
            // A clip that runs into a transition has -1 there: it starts
            // where the transition before it ends.
            long start = numberOf(item->FirstChildElement("start"), 0);
            if (start < 0 && i > 0) start = numberOf(items[i - 1]->FirstChildElement("end"), 0);
            std::string label = textOf(item->FirstChildElement("name"));
            std::string itemName = label.empty() ? "" : "\"" + label + "\"";
            bool enabled = std::strcmp(textOf(item->FirstChildElement("enabled")), "FALSE") != 0;

            if (std::strcmp(item->Name(), "generatoritem") == 0) {
                add(p, name, start, "generator", effectName(item->FirstChildElement("effect")));
                continue;
            }
            if (std::strcmp(item->Name(), "transitionitem") == 0) {
                const XMLElement* effect = item->FirstChildElement("effect");
                std::string category =
                    textOf(effect ? effect->FirstChildElement("effectcategory") : nullptr);
                if (video && category != "Wipe" && category != "Dissolve")
                    add(p, name, start, "unknown-transition", effectName(effect));
                if (!enabled) add(p, name, start, "disabled", "a transition");
                continue;
            }
            if (!enabled) add(p, name, start, "disabled", itemName);
            if (const XMLElement* nested = item->FirstChildElement("sequence")) {
                const XMLElement* n = firstInside(nested, "name");
                add(p, name, start, "nested-sequence",
                    n ? "\"" + std::string(textOf(n)) + "\"" : "");
            } else if (item->FirstChildElement("multiclip")) {
                add(p, name, start, "multiclip", itemName);
            }
            // The reader finds a clip's file at any depth: a use of a nested
            // sequence or a multiclip plays the first file inside it.
            if (const XMLElement* file = firstInside(item, "file")) {
                const XMLElement* def = file->FirstChildElement() ? file : nullptr;
                if (!def && file->Attribute("id")) {
                    auto it = files_.find(file->Attribute("id"));
                    if (it != files_.end()) def = it->second;
                }
                if (def && !firstInside(def, "duration"))
                    add(p, name, start, "unusable-file", itemName);
            }
            for (const XMLElement* f = item->FirstChildElement("filter"); f;
                 f = f->NextSiblingElement("filter")) {
                const XMLElement* effect = f->FirstChildElement("effect");
                std::string id = textOf(effect ? effect->FirstChildElement("effectid") : nullptr);
                if (id == "audiolevels") continue;
                if (id == "timeremap") {
                    if (isRamp(effect)) add(p, name, start, "speed-ramp", itemName);
                    continue;
                }
                add(p, name, start, "filter", effectName(effect));
            }
        }
    }

    // A Time Remap whose speed changes along the clip.
    static bool isRamp(const XMLElement* effect) {
        for (const XMLElement* param = effect ? effect->FirstChildElement("parameter") : nullptr;
             param; param = param->NextSiblingElement("parameter")) {
            std::string id = textOf(param->FirstChildElement("parameterid"));
            if (id == "variablespeed" && numberOf(param->FirstChildElement("value"), 0) != 0)
                return true;
            if (id == "speed" && param->FirstChildElement("keyframe")) return true;
        }
        return false;
    }

    std::map<std::string, const XMLElement*> files_;
    std::vector<Loss> out_;
};

}  // namespace

std::vector<Loss> scanSource(const std::string& path, const std::string& format) {
    if (format == "xmeml") {
        tinyxml2::XMLDocument doc;
        if (doc.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS || !doc.RootElement()) return {};
        return XmemlScan().run(doc.RootElement());
    }
    return {};
}

}  // namespace qvapp
