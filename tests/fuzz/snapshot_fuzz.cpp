// Feeds arbitrary bytes to the snapshot loader, and exports what it loads in
// each format, as `qvxml export --lenient` would: any value of any field must
// load or be refused with a sentence, and export without undefined behaviour.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "app/checks/DocumentCheck.h"
#include "export/ExportDriver.h"
#include "host/Edit.h"
#include "host/Paths.h"
#include "host/Snapshot.h"

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// Exports go to a folder of this process, emptied after each.
const std::string& outputFolder() {
    static std::string folder = [] {
        const char* base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string pattern = std::string(base) + "/qvxml-fuzz-XXXXXX";
        return std::string(::mkdtemp(pattern.data()) ? pattern : "/tmp");
    }();
    return folder;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > (1u << 18)) return 0;
    std::string text(reinterpret_cast<const char*>(data), size);
    EditStore store;
    ScopedCurrentStore scope(store);
    Snapshot::Result r = Snapshot::load(store, text, "/media");
    if (!r.ok) {
        check(!r.error.empty());
        check(store.size() == 0);
        return 0;
    }
    // A loaded store dumps and loads again.
    {
        EditStore again;
        check(Snapshot::load(again, Snapshot::dump(store), "").ok);
    }
    int exported = 0;
    for (const Qv::Ptr<Edit>& e : store.edits()) {
        if (exported == 2) break;
        if (e->isShot() && store.size() > 1) continue;
        ++exported;
        (void)qvapp::unusableValues(qvapp::editAndSources(e), 4);
        for (XML::XMLFlavour flavour :
             {XML::XMLFlavourQV2, XML::XMLFlavourFCP5, XML::XMLFlavourFCPX}) {
            XMLExportOptions o;
            o.directory = pathFromBytes(outputFolder() + "/");
            o.fileName = L"out";
            o.flavour = flavour;
            o.silent = (size & 1) != 0;
            XML::ExportResult result = XML::XMLExportFiles(e->cookie, o, LoggerHandle());
            (void)result;
            for (const char* name : {"out.xml", "out.fcpxml"})
                ::unlink((outputFolder() + "/" + name).c_str());
        }
    }
    return 0;
}
