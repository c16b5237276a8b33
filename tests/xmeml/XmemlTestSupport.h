// What the xmeml writer tests share: a fixture that exports an edit as xmeml
// into a temporary directory and parses the document back, and small
// look-ups over the parsed elements.
#pragma once

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "export/ExportDriver.h"
#include "tests/support/TestSupport.h"

namespace xmemltest {

using qvtest::addCel;
using qvtest::addSequence;
using qvtest::addShot;
using qvtest::playCookie;
using tinyxml2::XMLElement;

// Every element called `name` below `e`, in document order.
inline void collect(const XMLElement* e, const char* name, std::vector<const XMLElement*>& out) {
    for (const XMLElement* c = e->FirstChildElement(); c; c = c->NextSiblingElement()) {
        if (std::string(c->Name()) == name) out.push_back(c);
        collect(c, name, out);
    }
}
inline std::vector<const XMLElement*> all(const XMLElement* e, const char* name) {
    std::vector<const XMLElement*> out;
    if (e) collect(e, name, out);
    return out;
}
// The children of `e` called `name`.
inline std::vector<const XMLElement*> children(const XMLElement* e, const char* name) {
    std::vector<const XMLElement*> out;
    for (const XMLElement* c = e ? e->FirstChildElement(name) : nullptr; c;
         c = c->NextSiblingElement(name))
        out.push_back(c);
    return out;
}
// The text of the first child called `name`; "<none>" when there is no such
// child, "" when it is empty.
inline std::string text(const XMLElement* e, const char* name) {
    const XMLElement* c = e ? e->FirstChildElement(name) : nullptr;
    if (!c) return "<none>";
    return c->GetText() ? c->GetText() : "";
}
// The text at a path of child names, "a/b/c".
inline std::string at(const XMLElement* e, const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return text(e, path.c_str());
    std::string head = path.substr(0, slash);
    size_t from = 0;
    while (e && from <= head.size()) {
        size_t to = head.find('/', from);
        if (to == std::string::npos) to = head.size();
        e = e->FirstChildElement(head.substr(from, to - from).c_str());
        from = to + 1;
    }
    return text(e, path.substr(slash + 1).c_str());
}
// The names of the children of `e`, in order.
inline std::vector<std::string> childNames(const XMLElement* e) {
    std::vector<std::string> out;
    for (const XMLElement* c = e ? e->FirstChildElement() : nullptr; c; c = c->NextSiblingElement())
        out.push_back(c->Name());
    return out;
}
inline std::string attr(const XMLElement* e, const char* name) {
    const char* v = e ? e->Attribute(name) : nullptr;
    return v ? v : "<none>";
}

// Runs of xmeml exports through the driver, with the lines of the run's log
// and of the application's log kept.
class XmemlTest : public qvtest::StoreTest {
  protected:
    void SetUp() override { setApplicationLog(Qv::Ptr<iLogSink>(appSink)); }
    void TearDown() override { setApplicationLog(Qv::Ptr<iLogSink>()); }

    // Exports `edit` as xmeml; the path written, or "" when no file was made.
    std::string exportEdit(const Qv::Ptr<Edit>& edit, bool silent = false) {
        XMLExportOptions o;
        o.directory = dir.wpath();
        o.fileName = L"out";
        o.flavour = XML::XMLFlavourFCP5;
        o.silent = silent;
        result = XML::XMLExportFiles(edit->cookie, o, capturingLog());
        std::string path = dir.file("out.xml");
        return qvtest::exists(path) ? path : "";
    }

    // Exports and parses; null (with a failure) when the document is not
    // well-formed or the export failed.
    const XMLElement* exportAndParse(const Qv::Ptr<Edit>& edit, bool silent = false) {
        std::string path = exportEdit(edit, silent);
        EXPECT_EQ(result.status, 1);
        if (path.empty()) {
            ADD_FAILURE() << "no file";
            return nullptr;
        }
        documentText = qvtest::readFile(path);
        if (std::getenv("XMEML_DUMP")) std::cerr << documentText;
        doc = std::make_unique<tinyxml2::XMLDocument>();
        if (doc->Parse(documentText.c_str()) != tinyxml2::XML_SUCCESS) {
            ADD_FAILURE() << "not well-formed: " << doc->ErrorStr() << "\n" << documentText;
            return nullptr;
        }
        const XMLElement* root = doc->RootElement();
        EXPECT_STREQ(root->Name(), "xmeml");
        EXPECT_STREQ(root->Attribute("version"), "5");
        return root;
    }

    // The lines of the run's log of one kind, in order.
    std::vector<std::string> lines(LogKind kind) const {
        std::vector<std::string> out;
        for (const auto& l : sink->lines)
            if (l.kind == kind) out.push_back(l.text.str());
        return out;
    }
    int appLines(const std::string& text) const {
        int n = 0;
        for (const auto& l : appSink->lines)
            n += l.text.str() == text;
        return n;
    }

    qvtest::TempDir dir;
    XML::ExportResult result;
    std::string documentText;
    std::unique_ptr<tinyxml2::XMLDocument> doc;
    Qv::Ptr<CapturingLogSink> appSink{new CapturingLogSink};
};

}  // namespace xmemltest
