#include "xml/XMLNode.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

TEST(XMLTools, ConversionsFallBackToDefaults) {
    EXPECT_STREQ(xmltoa(nullptr, "def"), "def");
    EXPECT_TRUE(xmltob("Yes"));
    EXPECT_FALSE(xmltob("0", true));
    EXPECT_TRUE(xmltob("maybe", true));
    EXPECT_EQ(xmltoi("", 7), 7);
    EXPECT_EQ(xmltoi("99999999999"), 2147483647);  // clamped
    EXPECT_EQ(xmltol("9000000000"), 9000000000LL);
    EXPECT_DOUBLE_EQ(xmltof(nullptr, 1.5), 1.5);
    EXPECT_EQ(xmltoc("xyz"), 'x');
}

std::string encode(const std::string& s, bool formatted = false) {
    return XMLParserBase64Tool::encode(reinterpret_cast<const unsigned char*>(s.data()), s.size(), formatted);
}

TEST(XMLTools, Base64KnownVectorsRoundTripAndErrors) {
    for (auto [plain, coded] : {std::pair("", ""), std::pair("f", "Zg=="), std::pair("fo", "Zm8="), std::pair("foobar", "Zm9vYmFy")})
        EXPECT_EQ(encode(plain), coded);

    std::string binary;
    for (int k = 0; k < 300; ++k) binary += static_cast<char>(k * 7);
    std::string plain = encode(binary);
    EXPECT_EQ(plain.find('\n'), std::string::npos);
    std::string lines = encode(binary, true);
    EXPECT_EQ(lines.size(), plain.size() + (plain.size() - 1) / 72);
    EXPECT_EQ(lines[72], '\n');
    EXPECT_NE(lines.back(), '\n');

    for (const std::string& text : {plain, lines}) {
        XMLError e = eXMLErrorCannotWriteFile;
        EXPECT_EQ(XMLParserBase64Tool::decode(text.c_str(), &e), binary);
        EXPECT_EQ(e, eXMLErrorNone);
    }
    XMLError e;
    EXPECT_EQ(XMLParserBase64Tool::decode("Zg==Zg==", &e), "");
    EXPECT_EQ(e, eXMLErrorBase64DecodeIllegalCharacter);
    EXPECT_EQ(XMLParserBase64Tool::decode("Zm9vYg", &e), "foob");
    EXPECT_EQ(e, eXMLErrorBase64DecodeTruncatedData);
}

}  // namespace
