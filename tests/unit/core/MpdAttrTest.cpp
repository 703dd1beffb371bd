// Output attributes as clients echo them back from a listing.
#include <gtest/gtest.h>

#include "render/MpdAttr.h"

TEST(MpdAttrTest, ReadsBothSettingsCaseInsensitively) {
    int rate = 0, dsd = 0;
    EXPECT_EQ(ParseMpdAttr("SAMPLERATE=Auto,DSDPASS=enable", &rate, &dsd), 0);
    EXPECT_EQ(rate, -1);
    EXPECT_EQ(dsd, 1);
    EXPECT_EQ(ParseMpdAttr("samplerate=96000, dsdpass=Disable", &rate, &dsd), 0);
    EXPECT_EQ(rate, 96000);
    EXPECT_EQ(dsd, 0);
    // Not given, or not understood: -2; a later pair wins; pairs without '=' are skipped.
    EXPECT_EQ(ParseMpdAttr("samplerate=0,DSDPASS,DSDPASS=maybe,DSDPASS=Auto", &rate, &dsd), 0);
    EXPECT_EQ(rate, -2);
    EXPECT_EQ(dsd, -1);
    EXPECT_EQ(ParseMpdAttr("", &rate, &dsd), -1);
    EXPECT_EQ(rate, -2);
    EXPECT_EQ(ParseMpdAttr("SAMPLERATE=1", nullptr, &dsd), -1);
}
