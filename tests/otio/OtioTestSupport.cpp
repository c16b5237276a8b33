#include "tests/otio/OtioTestSupport.h"

#include <cmath>
#include <cstdio>
#include <sstream>

#include "otio/OtioImport.h"
#include "otio/OtioWriter.h"
#include "tests/support/TestSupport.h"

namespace qvotio {

using json = nlohmann::json;

std::string corpus() {
    std::string dir = QVXML_CORPUS;
    return qvtest::exists(dir + "/otio") ? dir : std::string();
}

std::vector<std::string> corpusOtioFiles() {
    std::vector<std::string> files;
    if (corpus().empty()) return files;
    for (const char* sub : {"/otio", "/otio/from-xmeml"}) {
        std::string dir = corpus() + sub;
        for (const std::string& name : qvtest::listDirectory(dir))
            if (name.size() > 5 && name.substr(name.size() - 5) == ".otio")
                files.push_back(dir + "/" + name);
    }
    return files;
}

std::string schemaDocument() {
    return corpus().empty() ? std::string() : corpus() + "/otio/docs/otio-serialized-schema.md";
}

bool havePython() {
    return std::string(QVXML_PYTHON).size() > 0;
}

namespace {

json runPython(const std::string& arguments) {
    return qvtest::scriptReading(qvtest::shellQuote(QVXML_PYTHON) + " " +
                                 qvtest::shellQuote(QVXML_OTIO_READING) + " " + arguments);
}

}  // namespace

json pythonPositions(const std::string& otioFile) {
    return runPython("positions " + qvtest::shellQuote(otioFile));
}

std::vector<std::string> schemaProblems(const std::string& otioFile) {
    json result = runPython("check " + qvtest::shellQuote(otioFile) + " " +
                            qvtest::shellQuote(schemaDocument()));
    std::vector<std::string> problems;
    if (!result.is_object()) return {"no answer from the Python reading"};
    if (result.value("objects", 0) == 0) problems.push_back("no object was checked");
    for (const json& p : result["problems"])
        problems.push_back(p.get<std::string>());
    return problems;
}

XML::ImportResult importOtio(const std::string& path, LoggerHandle log) {
    std::string error;
    XML::ImportResult r = QvOtio::importOtioFile(fromUTF8(path.c_str()), log, error);
    if (!error.empty()) ADD_FAILURE() << path << ": " << error;
    return r;
}

std::string otioText(const Cookie& edit) {
    std::string text;
    int status = QvOtio::writeOtio(edit, QvOtio::ExportOptions(), LoggerHandle(), text);
    EXPECT_EQ(status, 1);
    return text;
}

namespace {

// What a cel is, as the Python reading names it.
std::string kindOf(const CelData& cel, std::string& name) {
    if (cel.cookie.isMagic()) return cel.cookie.isBlack() ? "black" : "transition";
    Qv::Ptr<Edit> played = EditStore::current().find(cel.cookie);
    if (!played) return "unresolved";
    name = toUTF8(played->name).str();
    return played->isShot() || played->logType == kLogTypeSubclip ? "clip" : "nested";
}

}  // namespace

::testing::AssertionResult matchesPositions(const json& expected,
                                            const LightweightVector<EditModifier>& made) {
    std::vector<const json*> sequences;
    for (const json& t : expected)
        if (t.value("kind", "sequence") == "sequence") sequences.push_back(&t);
    if (sequences.size() != made.size())
        return ::testing::AssertionFailure()
               << made.size() << " sequences made, " << sequences.size() << " expected";
    for (size_t s = 0; s < made.size(); ++s) {
        const json& t = *sequences[s];
        const Edit& edit = *made[s].get();
        double ticks = t["ticks"].get<double>();
        const json& channels = t["channels"];
        if (edit.channels.size() != channels.size())
            return ::testing::AssertionFailure() << t["name"] << ": " << edit.channels.size()
                                                 << " channels, " << channels.size() << " expected";
        for (size_t c = 0; c < channels.size(); ++c) {
            const StoredChannel& ch = edit.channels[c];
            const json& want = channels[c]["cels"];
            std::ostringstream where;
            where << t["name"].get<std::string>() << " channel " << c << " ("
                  << channels[c]["name"].get<std::string>() << ")";
            if ((ch.type == kChanVideo ? "video" : "audio") != channels[c]["type"])
                return ::testing::AssertionFailure() << where.str() << ": wrong type";
            if (ch.cels.size() != want.size())
                return ::testing::AssertionFailure() << where.str() << ": " << ch.cels.size()
                                                     << " cels, " << want.size() << " expected";
            for (size_t i = 0; i < want.size(); ++i) {
                const CelData& cel = ch.cels[i];
                const json& w = want[i];
                std::string name;
                std::string kind = kindOf(cel, name);
                auto fail = [&](const std::string& what) {
                    return ::testing::AssertionFailure()
                           << where.str() << " cel " << i << ": " << what << "; expected "
                           << w.dump() << ", got " << kind << " " << cel.editIn * ticks << "-"
                           << cel.editOut * ticks << " source " << cel.sourceIn * ticks;
                };
                if (kind != w["kind"]) return fail("kind");
                if (std::fabs(cel.editIn * ticks - w["in"].get<double>()) > 1e-6 ||
                    std::fabs(cel.editOut * ticks - w["out"].get<double>()) > 1e-6)
                    return fail("record position");
                if (w.contains("source")) {
                    if (std::fabs(cel.sourceIn * ticks - w["source"].get<double>()) > 1e-6)
                        return fail("source position");
                    if (cel.speed != static_cast<float>(w["speed"].get<double>()))
                        return fail("speed");
                }
                if (kind == "clip" && name != w["name"]) return fail("source name " + name);
            }
        }
    }
    return ::testing::AssertionSuccess();
}

}  // namespace qvotio
