#include "app/conform/LossReport.h"

#include <gtest/gtest.h>

namespace {

using qvapp::DocumentLosses;
using qvapp::lossSummary;

// "Nothing was lost" is said only of a run without losses and without
// warnings: a warning that something plays black is never contradicted.
TEST(LossReport, NothingWasLostOnlyWithoutLossesOrWarnings) {
    DocumentLosses d;
    d.input = "cut.otio";
    d.target = "xmeml";
    d.read = true;
    EXPECT_EQ(lossSummary(d), "cut.otio to xmeml: nothing was lost");
    d.warnings = 2;
    EXPECT_EQ(lossSummary(d),
              "cut.otio to xmeml: no loss was recorded, but 2 warnings above may "
              "tell of one");
    qvapp::Loss l;
    l.kind = "nested-unplayed";
    d.items.push_back(l);
    EXPECT_EQ(lossSummary(d),
              "cut.otio to xmeml: 1 loss (1 nested stacks played as black or "
              "silence)");
}

}  // namespace
