// What the XML writer tests share: look-ups over a parsed document, xmllint's
// complaints against a DTD, and a fixture that exports an edit through the
// driver into a temporary directory and parses the document back.
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

namespace xmltest {

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
// The names of the children of `e`, in order.
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
// The text of the first child called `name`; "<none>" when there is no such
// child, "" when it is empty.
inline std::string text(const XMLElement* e, const char* name) {
    const XMLElement* c = e ? e->FirstChildElement(name) : nullptr;
    if (!c) return "<none>";
    return c->GetText() ? c->GetText() : "";
}
// The text at a path of child names, "a/b/c".
inline std::string at(const XMLElement* e, const std::string& names) {
    size_t slash = names.rfind('/');
    if (slash == std::string::npos) return text(e, names.c_str());
    return text(path(e, names.substr(0, slash)), names.substr(slash + 1).c_str());
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
        // "<file>:<line>: element name: validity error : message"
        size_t colon = line.rfind(": ", v - 1);
        std::string where = colon == std::string::npos ? "" : line.substr(colon + 2, v - colon - 2);
        complaints.insert(where + ": " + line.substr(v + 19));
    }
    if (rc != 0 && complaints.empty())
        complaints.insert("xmllint failed: " + qvtest::readFile(out));
    return complaints;
}

// Runs of exports through the driver, with the lines of the run's log and of
// the application's log kept.
class ExportTest : public qvtest::StoreTest {
  protected:
    void SetUp() override { setApplicationLog(Qv::Ptr<iLogSink>(appSink)); }
    void TearDown() override { setApplicationLog(Qv::Ptr<iLogSink>()); }

    // Exports `edit` with `o` as "out" into the test's directory; the path of
    // `file` written there, or "" when it was not made.
    std::string exportWith(const Qv::Ptr<Edit>& edit, XMLExportOptions o, const char* file) {
        o.directory = dir.wpath();
        o.fileName = L"out";
        result = XML::XMLExportFiles(edit->cookie, o, capturingLog());
        std::string written = dir.file(file);
        return qvtest::exists(written) ? written : "";
    }

    // Parses what an export wrote (shown on standard error when the variable
    // `dump` is set) and checks that its root is `rootTag`; null (with a
    // failure) when the export failed or the document is not well-formed.
    const XMLElement* parseExported(const std::string& file, const char* dump,
                                    const std::string& rootTag) {
        EXPECT_EQ(result.status, 1);
        if (file.empty()) {
            ADD_FAILURE() << "no file";
            return nullptr;
        }
        documentText = qvtest::readFile(file);
        if (std::getenv(dump)) std::cerr << documentText;
        doc = std::make_unique<tinyxml2::XMLDocument>();
        if (doc->Parse(documentText.c_str()) != tinyxml2::XML_SUCCESS) {
            ADD_FAILURE() << "not well-formed: " << doc->ErrorStr() << "\n" << documentText;
            return nullptr;
        }
        const XMLElement* root = doc->RootElement();
        EXPECT_EQ(tag(root), rootTag);
        return root;
    }

    // The lines of the run's log of one kind, in order.
    std::vector<std::string> lines(LogKind kind) const {
        std::vector<std::string> out;
        for (const auto& l : sink->lines)
            if (l.kind == kind) out.push_back(l.text.str());
        return out;
    }
    // The lines of the application's log, in order.
    std::vector<std::string> appLines() const {
        std::vector<std::string> out;
        for (const auto& l : appSink->lines)
            out.push_back(l.text.str());
        return out;
    }

    qvtest::TempDir dir;
    XML::ExportResult result;
    std::string documentText;
    std::unique_ptr<tinyxml2::XMLDocument> doc;
    Qv::Ptr<CapturingLogSink> appSink{new CapturingLogSink};
};

}  // namespace xmltest
