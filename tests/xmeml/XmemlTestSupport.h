// What the xmeml writer tests share: a fixture that exports an edit as xmeml
// into a temporary directory and parses the document back. The look-ups over
// the parsed elements are tests/support/XmlTestSupport.h's.
#pragma once

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <string>

#include "tests/support/XmlTestSupport.h"

namespace xmemltest {

// The look-ups, the builders of shots and sequences, and the export fixture.
using namespace xmltest;

// Runs of xmeml exports through the driver, with the lines of the run's log
// and of the application's log kept.
class XmemlTest : public xmltest::ExportTest {
  protected:
    // Exports `edit` as xmeml; the path written, or "" when no file was made.
    std::string exportEdit(const Qv::Ptr<Edit>& edit, bool silent = false) {
        XMLExportOptions o;
        o.flavour = XML::XMLFlavourFCP5;
        o.silent = silent;
        return exportWith(edit, o, "out.xml");
    }

    // Exports and parses; null (with a failure) when the document is not
    // well-formed or the export failed.
    const XMLElement* exportAndParse(const Qv::Ptr<Edit>& edit, bool silent = false) {
        return parseExported(exportEdit(edit, silent), "XMEML_DUMP", "xmeml version=\"5\"");
    }

    // How many lines of the application's log are `text`.
    int appLines(const std::string& text) const {
        int n = 0;
        for (const std::string& l : ExportTest::appLines())
            n += l == text;
        return n;
    }
};

}  // namespace xmemltest
