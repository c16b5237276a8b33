// rate: the frame rate of a document's first sequence.
#include <sys/stat.h>

#include <cerrno>

#include "app/commands/Commands.h"
#include "app/pipeline/AroundPlugin.h"
#include "app/pipeline/Pipeline.h"
#include "app/pipeline/Text.h"
#include "otio/OtioImport.h"

namespace qvapp {

Outcome Commands::rate(const Options& o) {
    if (o.inputs.size() != 1) return Outcome(kExitUsage, "say which one document to look at");
    const std::string& input = o.inputs[0];
    struct stat st;
    if (::stat(input.c_str(), &st) != 0)
        return Outcome(kExitUnreadable,
                       "cannot read " + inQuotes(input) + ": there is no such file");
    iXMLResource* resource = plugin_.resource();
    if (!resource) return Outcome(kExitPlugin, "the XML plug-in offers no XML resource");
    const LightweightString<wchar_t> path = widePath(absolute(input));
    if (QvOtio::isOtioDocument(path)) {
        Qv::FrameRate rate = QvOtio::otioFrameRate(path);
        if (rate == Qv::eFrameRateNone)
            return Outcome(kExitUnknownDocument, "the frame rate of " + inQuotes(input) +
                                                     " cannot be told: it holds no OpenTimelineIO "
                                                     "timeline qvxml can read");
        std::printf("%s\n", narrow(Qv::getPlainString(rate)).c_str());
        return {};
    }
    if (isListInput(input)) return rateOfList(input);
    DocumentHead head = readDocumentHead(input);
    std::string bytes;
    bool untrusted = false, converted = false;
    if (Outcome r = readAndCheck(input, head, o.lenient, untrusted, nullptr, bytes, converted);
        !r.ok())
        return r;
    Qv::FrameRate r;
    {
        MendedVersion mended(input, head, path, log(), std::move(bytes), converted);
        r = resource->getFrameRate(path);
    }
    if (r == Qv::eFrameRateNone) {
        bool known = (head.kind == DocumentHead::Kind::Xmeml && head.firstAttribute == "version" &&
                      head.firstValue.size() == 1 && head.firstValue[0] >= '1' &&
                      head.firstValue[0] <= '5') ||
                     (head.kind == DocumentHead::Kind::Native && head.firstAttribute == "Version" &&
                      (head.firstValue == "1.0" || head.firstValue == "2.0"));
        if (!known) return Outcome(kExitUnknownDocument, whyUnreadable(input, head));
        // The document is read as import reads it, so that what kept the
        // rate from being told is said as import says it: a damaged rate
        // (which element and line; the answer is untrusted unless
        // --lenient), or a document too large for the memory there is.
        {
            EditStore project;
            ScopedCurrentStore scope(project);
            std::vector<Qv::Ptr<Edit>> sequences;
            if (Outcome read = importDocuments({input}, sequences, o.lenient); !read.ok())
                return read;
            if (!o.lenient && !untrusted_.empty())
                return Outcome(kExitUntrusted, "the frame rate of " + inQuotes(input) +
                                                   " cannot be trusted: it is damaged (see the "
                                                   "warnings above)");
        }
        return Outcome(kExitUnknownDocument,
                       "the frame rate of " + inQuotes(input) +
                           " cannot be told: its first sequence names no rate "
                           "qvxml knows");
    }
    std::printf("%s\n", narrow(Qv::getPlainString(r)).c_str());
    return {};
}

}  // namespace qvapp
