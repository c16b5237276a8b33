// What the fcpxml writer tests share: a fixture that exports an edit as
// fcpxml through the driver and parses the document back, and what Final Cut
// Pro X's DTD refuses on purpose. The look-ups over the parsed elements are
// tests/support/XmlTestSupport.h's.
#pragma once

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "tests/support/XmlTestSupport.h"

namespace fcpxmltest {

// The look-ups, the builders of shots and sequences, and the export fixture.
using namespace xmltest;

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
class FcpxmlTest : public xmltest::ExportTest {
  protected:
    void SetUp() override {
        ExportTest::SetUp();
        useLegacyInterchange();
    }

    // Exports `edit` as fcpxml; the path written, or "" when no file was made.
    std::string exportEdit(const Qv::Ptr<Edit>& edit, bool skipOffline = false) {
        XMLExportOptions o;
        o.flavour = XML::XMLFlavourFCPX;
        o.prepareOption = skipOffline;
        o.useTrackOriginFilename = useTrackOriginFilename;
        return exportWith(edit, o, "out.fcpxml");
    }

    // Exports and parses; null (with a failure) when the export failed or the
    // document is not well-formed.
    const XMLElement* exportAndParse(const Qv::Ptr<Edit>& edit, bool skipOffline = false) {
        return parseExported(exportEdit(edit, skipOffline), "FCPXML_DUMP",
                             "fcpxml version=\"1.4\"");
    }

    // The items of the first sequence's spine.
    std::vector<const XMLElement*> spineItems(const XMLElement* root) {
        return children(path(root, "library/event/project/sequence/spine"));
    }

    bool useTrackOriginFilename = false;
};

}  // namespace fcpxmltest
