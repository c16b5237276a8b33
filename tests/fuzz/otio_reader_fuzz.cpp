// Feeds arbitrary bytes to the OpenTimelineIO reader: parsed, read into a
// fresh project, and every sequence made written again. Besides crashes it
// checks that what the writer writes always parses.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/Edit.h"
#include "otio/OtioModel.h"
#include "otio/OtioReader.h"
#include "otio/OtioWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || size > (1u << 20)) return 0;
    std::string_view text(reinterpret_cast<const char*>(data), size);
    QvOtio::Document doc;
    if (!QvOtio::parseText(text, doc).ok) return 0;
    EditStore project;
    ScopedCurrentStore scope(project);
    Qv::Ptr<QvOtio::OtioReader> reader(new QvOtio::OtioReader(LoggerHandle()));
    Qv::Ptr<ImportFileInfoRep> info(new ImportFileInfoRep({L"/nonexistent/fuzz.otio"}));
    XML::ImportResult r = reader->importDocument(doc, info, LoggerHandle());
    for (const EditModifier& m : r.edits) {
        std::string written;
        if (QvOtio::writeOtio(m.getCookie(), QvOtio::ExportOptions(), LoggerHandle(), written) != 1)
            __builtin_trap();
        QvOtio::Document again;
        if (!QvOtio::parseText(written, again).ok) __builtin_trap();
    }
    return 0;
}
