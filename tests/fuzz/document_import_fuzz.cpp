// Feeds arbitrary bytes to the import, the way the command does with
// --lenient: the command's own checks first (well-formedness and limits, and
// for QVXML what its readers pass over), then, unless a limit refuses the
// document, the plug-in's import driver through a file overlay, then the
// checks of what was made and a snapshot of the store. Built twice: as the
// native target (QVXML_FUZZ_NATIVE, QVXML's limits) and as the xmeml target,
// which differ in their seeds and in the limits the command applies.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "app/checks/DocumentCheck.h"
#include "app/checks/WellFormed.h"
#include "host/Config.h"
#include "host/Edit.h"
#include "host/OS.h"
#include "host/Snapshot.h"
#include "import/ImportDriver.h"
#include "tests/fuzz/FuzzSupport.h"

namespace {

using fuzzsupport::check;

const LightweightString<wchar_t> kPath(L"/qvxml-fuzz/document.xml");

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text;
    if (!fuzzsupport::importInput(data, size, text)) return 0;

#ifdef QVXML_FUZZ_NATIVE
    // As the command reads a QVXML document: one scan checks it, and tells
    // what its reader passes over.
    std::vector<qvapp::Finding> findings;
    qvapp::XmlCheck xml = qvapp::checkNative(text, (size & 1) != 0, findings);
    for (const qvapp::Finding& f : findings)
        check(f.at.offset <= size && !f.what.empty());
#else
    qvapp::XmlCheck xml = qvapp::checkXml(text, qvapp::XmlLimits());
#endif
    if (xml.malformed) check(xml.malformed.at.offset <= size && xml.malformed.at.line >= 1);
    if (xml.limit) return 0;  // refused: the plug-in never sees it

    EditStore store;
    ScopedCurrentStore scope(store);
    setFileOverlay(kPath, std::string(text));
    ImportFileList files;
    files.push_back(Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({kPath})));
    XML::ImportResult r = XML::XMLImportFiles(files, LoggerHandle());
    (void)XML::getSequenceFrameRate(kPath);
    clearFileOverlay(kPath);
    (void)r;

    qvapp::Unusable unusable = qvapp::unusableValues(store.edits(), 4);
    check(unusable.named.size() <= 4);
    std::string snapshot = Snapshot::dump(store);
    EditStore again;
    check(Snapshot::load(again, snapshot, "").ok);
    return 0;
}
