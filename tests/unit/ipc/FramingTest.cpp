// Reading a request that may arrive in pieces, and the length block.
#include <gtest/gtest.h>

#include "ipc/Framing.h"
#include "ipc/RequestIO.h"

using requestio::DocState;
using requestio::scanDocument;

TEST(DocumentScanTest, ARequestIsReadUntilItIsCompleteOrCanNeverBeADocument) {
    for (const char* text : {"<root/>", "<root><command>echo</command></root>", "  \n<root a='>'>x</root>",
                             "<?xml version=\"1.0\"?><!-- <x> --><root><![CDATA[</root>]]></root>",
                             "<!DOCTYPE root><root><a/><b></b></root>", "garbage", "</root>",
                             "<root><command>echo</root>" /* mismatched end tag */}) {
        EXPECT_EQ(scanDocument(text), DocState::Complete) << text;
    }
    std::string doc = "<?xml version=\"1.0\"?><root a=\"1>2\"><!-- c --><command>echo</command><![CDATA[x]]></root>";
    for (size_t len = 0; len < doc.size(); ++len)
        EXPECT_EQ(scanDocument(doc.substr(0, len)), DocState::NeedMore) << doc.substr(0, len);
    EXPECT_EQ(scanDocument("<root><a><b></b>"), DocState::NeedMore);
}

TEST(FramingTest, HeaderIsDigitsThenNulBytes) {
    char block[framing::kHeaderSize];
    framing::formatHeader(block, 1234);
    EXPECT_EQ(std::string(block, sizeof block), "1234" + std::string(sizeof block - 4, '\0'));
    EXPECT_EQ(framing::parseHeader(block, sizeof block), 1234);

    block[10] = 'x';
    EXPECT_EQ(framing::parseHeader(block, sizeof block), -1);
    char empty[framing::kHeaderSize] = {};
    EXPECT_EQ(framing::parseHeader(empty, sizeof empty), -1);
}
