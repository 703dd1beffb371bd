#include "xml/XMLNode.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

TEST(XMLTools, ConversionsFallBackToDefaults) {
    EXPECT_STREQ(xmltoa(nullptr, "def"), "def");
    EXPECT_STREQ(xmltoa("x"), "x");

    EXPECT_TRUE(xmltob("true"));
    EXPECT_TRUE(xmltob("1"));
    EXPECT_TRUE(xmltob("Yes"));
    EXPECT_FALSE(xmltob("false", true));
    EXPECT_FALSE(xmltob("0", true));
    EXPECT_TRUE(xmltob("maybe", true));
    EXPECT_TRUE(xmltob(nullptr, true));

    EXPECT_EQ(xmltoi("-42"), -42);
    EXPECT_EQ(xmltoi(nullptr, 7), 7);
    EXPECT_EQ(xmltoi("", 7), 7);
    EXPECT_EQ(xmltoi("99999999999"), 2147483647);
    EXPECT_EQ(xmltol("9000000000"), 9000000000LL);
    EXPECT_DOUBLE_EQ(xmltof("2.5"), 2.5);
    EXPECT_DOUBLE_EQ(xmltof(nullptr, 1.5), 1.5);
    EXPECT_EQ(xmltoc("xyz"), 'x');
    EXPECT_EQ(xmltoc(nullptr, 'q'), 'q');
}

std::string encode(const std::string& s, bool formatted = false) {
    return XMLParserBase64Tool::encode(reinterpret_cast<const unsigned char*>(s.data()), s.size(), formatted);
}

TEST(XMLTools, Base64KnownVectorsAndRoundTrip) {
    EXPECT_EQ(encode(""), "");
    EXPECT_EQ(encode("f"), "Zg==");
    EXPECT_EQ(encode("fo"), "Zm8=");
    EXPECT_EQ(encode("foo"), "Zm9v");
    EXPECT_EQ(encode("foobar"), "Zm9vYmFy");

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
        EXPECT_EQ(XMLParserBase64Tool::decodeSize(text.c_str(), &e), binary.size());
        EXPECT_EQ(e, eXMLErrorNone);
        EXPECT_EQ(XMLParserBase64Tool::decode(text.c_str(), &e), binary);
        EXPECT_EQ(e, eXMLErrorNone);
    }
}

TEST(XMLTools, Base64Errors) {
    XMLError e;
    EXPECT_EQ(XMLParserBase64Tool::decodeSize("Zm9v!", &e), 0u);
    EXPECT_EQ(e, eXMLErrorBase64DecodeIllegalCharacter);
    EXPECT_EQ(XMLParserBase64Tool::decode("Zg==Zg==", &e), "");
    EXPECT_EQ(e, eXMLErrorBase64DecodeIllegalCharacter);

    EXPECT_EQ(XMLParserBase64Tool::decodeSize("Zm9vYg", &e), 4u);
    EXPECT_EQ(e, eXMLErrorBase64DataSizeIsNotMultipleOf4);
    EXPECT_EQ(XMLParserBase64Tool::decode("Zm9vYg", &e), "foob");
    EXPECT_EQ(e, eXMLErrorBase64DecodeTruncatedData);

    unsigned char small[2];
    EXPECT_FALSE(XMLParserBase64Tool::decode("Zm9v", small, sizeof small, &e));
    EXPECT_EQ(e, eXMLErrorBase64DecodeBufferTooSmall);
    unsigned char exact[3];
    EXPECT_TRUE(XMLParserBase64Tool::decode("Zm9v", exact, sizeof exact, &e));
    EXPECT_EQ(e, eXMLErrorNone);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(exact), 3), "foo");
}

}  // namespace
