// What the fcpxml writer tests share: a fixture that exports an edit as
// fcpxml through the driver and parses the document back, look-ups over the
// parsed elements, and xmllint's complaints against Final Cut Pro X's DTD.
#pragma once

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "export/ExportDriver.h"
#include "tests/support/TestSupport.h"

namespace fcpxmltest {

using qvtest::addCel;
using qvtest::addSequence;
using qvtest::addShot;
using qvtest::playCookie;
using tinyxml2::XMLElement;

// An element as a line: its name and its attributes in document order,
// `clip lane="0" enabled="1"`.
inline std::string tag(const XMLElement* e) {
    if (!e) return "<none>";
    std::string s = e->Name();
    for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a; a = a->Next())
        s += std::string(" ") + a->Name() + "=\"" + a->Value() + "\"";
    return s;
}
inline std::string attr(const XMLElement* e, const char* name) {
    const char* v = e ? e->Attribute(name) : nullptr;
    return v ? v : "<none>";
}
// The children of `e`, all or those called `name`.
inline std::vector<const XMLElement*> children(const XMLElement* e, const char* name = nullptr) {
    std::vector<const XMLElement*> out;
    for (const XMLElement* c = e ? e->FirstChildElement(name) : nullptr; c;
         c = c->NextSiblingElement(name))
        out.push_back(c);
    return out;
}
inline std::vector<std::string> childNames(const XMLElement* e) {
    std::vector<std::string> out;
    for (const XMLElement* c : children(e))
        out.push_back(c->Name());
    return out;
}
// Every element called `name` below `e`, in document order.
inline void collect(const XMLElement* e, const char* name, std::vector<const XMLElement*>& out) {
    for (const XMLElement* c : children(e)) {
        if (std::string(c->Name()) == name) out.push_back(c);
        collect(c, name, out);
    }
}
inline std::vector<const XMLElement*> all(const XMLElement* e, const char* name) {
    std::vector<const XMLElement*> out;
    if (e) collect(e, name, out);
    return out;
}
// The first element at a path of child names, "library/event/project".
inline const XMLElement* path(const XMLElement* e, const std::string& names) {
    size_t from = 0;
    while (e && from <= names.size()) {
        size_t to = names.find('/', from);
        if (to == std::string::npos) to = names.size();
        e = e->FirstChildElement(names.substr(from, to - from).c_str());
        from = to + 1;
    }
    return e;
}

// Runs xmllint against a DTD and answers its complaints, each as
// "<element or attribute>: <message>" without file and line.
inline std::set<std::string> dtdComplaints(const std::string& file, const std::string& dtd,
                                           const std::string& tempDir) {
    std::string out = tempDir + "/xmllint.txt";
    std::string command =
        "xmllint --noout --dtdvalid '" + dtd + "' '" + file + "' > '" + out + "' 2>&1";
    int rc = std::system(command.c_str());
    std::set<std::string> complaints;
    std::istringstream lines(qvtest::readFile(out));
    for (std::string line; std::getline(lines, line);) {
        size_t v = line.find(": validity error : ");
        if (v == std::string::npos) continue;
        size_t colon = line.rfind(": ", v - 1);
        std::string where = colon == std::string::npos ? "" : line.substr(colon + 2, v - colon - 2);
        complaints.insert(where + ": " + line.substr(v + 19));
    }
    if (rc != 0 && complaints.empty())
        complaints.insert("xmllint failed: " + qvtest::readFile(out));
    return complaints;
}

// Where the DTD of fcpxml 1.4 is, or "" when it or xmllint is missing.
inline std::string fcpxmlDtd() {
    std::string dtd = QVXML_CORPUS "/dtd/FCPXMLv1_4.dtd";
    if (!qvtest::exists(dtd) || std::system("xmllint --version > /dev/null 2>&1") != 0) return "";
    return dtd;
}

// What the DTD of fcpxml 1.4 refuses in the documents this writer writes on
// purpose. Sequence documents pass whole. A document of shots alone lists
// its assets as asset-clip elements directly below the root, without a
// library: the DTD of 1.4 declares no asset-clip, nor its five attributes,
// and wants a library there.
inline const std::set<std::string>& assetClipRefusals() {
    static const std::set<std::string> refusals = {
        "element asset-clip: No declaration for element asset-clip",
        "element asset-clip: No declaration for attribute name of element asset-clip",
        "element asset-clip: No declaration for attribute format of element asset-clip",
        "element asset-clip: No declaration for attribute ref of element asset-clip",
        "element asset-clip: No declaration for attribute duration of element asset-clip",
        "element asset-clip: No declaration for attribute enabled of element asset-clip",
    };
    return refusals;
}
// The root's complaint in a document of `assets` asset clips.
inline std::string shotOnlyRootRefusal(int assets) {
    std::string got = "(import-options resources ";
    for (int i = 0; i < assets; ++i)
        got += "asset-clip ";
    return "element fcpxml: Element fcpxml content does not follow the DTD, expecting "
           "(import-options? , resources? , library), got " +
           got + ")";
}
// Whether a complaint is one of those above, for any number of asset clips.
inline bool isRequiredRefusal(std::string complaint) {
    if (assetClipRefusals().count(complaint)) return true;
    const std::string root = shotOnlyRootRefusal(0);
    const std::string head = root.substr(0, root.size() - 1), clip = "asset-clip ";
    if (!complaint.starts_with(head) || !complaint.ends_with(")")) return false;
    complaint = complaint.substr(head.size(), complaint.size() - head.size() - 1);
    for (size_t at = 0; at < complaint.size(); at += clip.size())
        if (complaint.compare(at, clip.size(), clip) != 0) return false;
    return true;
}

// Runs of fcpxml exports through the driver, with the lines of the run's log
// and of the application's log kept.
//
// These tests are of the format as first written: they run with
// xml_legacy_interchange at 1. FcpxmlFrames tests what is written by default.
class FcpxmlTest : public qvtest::StoreTest {
  protected:
    void SetUp() override {
        setApplicationLog(Qv::Ptr<iLogSink>(appSink));
        useLegacyInterchange();
    }
    void TearDown() override { setApplicationLog(Qv::Ptr<iLogSink>()); }

    // Exports `edit` as fcpxml; the path written, or "" when no file was made.
    std::string exportEdit(const Qv::Ptr<Edit>& edit, bool skipOffline = false) {
        XMLExportOptions o;
        o.directory = dir.wpath();
        o.fileName = L"out";
        o.flavour = XML::XMLFlavourFCPX;
        o.prepareOption = skipOffline;
        o.useTrackOriginFilename = useTrackOriginFilename;
        result = XML::XMLExportFiles(edit->cookie, o, capturingLog());
        std::string file = dir.file("out.fcpxml");
        return qvtest::exists(file) ? file : "";
    }

    // Exports and parses; null (with a failure) when the export failed or the
    // document is not well-formed.
    const XMLElement* exportAndParse(const Qv::Ptr<Edit>& edit, bool skipOffline = false) {
        std::string file = exportEdit(edit, skipOffline);
        EXPECT_EQ(result.status, 1);
        if (file.empty()) {
            ADD_FAILURE() << "no file";
            return nullptr;
        }
        documentText = qvtest::readFile(file);
        if (std::getenv("FCPXML_DUMP")) std::cerr << documentText;
        doc = std::make_unique<tinyxml2::XMLDocument>();
        if (doc->Parse(documentText.c_str()) != tinyxml2::XML_SUCCESS) {
            ADD_FAILURE() << "not well-formed: " << doc->ErrorStr() << "\n" << documentText;
            return nullptr;
        }
        const XMLElement* root = doc->RootElement();
        EXPECT_EQ(tag(root), "fcpxml version=\"1.4\"");
        return root;
    }

    // The items of the first sequence's spine.
    std::vector<const XMLElement*> spineItems(const XMLElement* root) {
        return children(path(root, "library/event/project/sequence/spine"));
    }

    // The lines of the run's log of one kind, in order.
    std::vector<std::string> lines(LogKind kind) const {
        std::vector<std::string> out;
        for (const auto& l : sink->lines)
            if (l.kind == kind) out.push_back(l.text.str());
        return out;
    }
    std::vector<std::string> appLines() const {
        std::vector<std::string> out;
        for (const auto& l : appSink->lines)
            out.push_back(l.text.str());
        return out;
    }

    qvtest::TempDir dir;
    bool useTrackOriginFilename = false;
    XML::ExportResult result;
    std::string documentText;
    std::unique_ptr<tinyxml2::XMLDocument> doc;
    Qv::Ptr<CapturingLogSink> appSink{new CapturingLogSink};
};

}  // namespace fcpxmltest
