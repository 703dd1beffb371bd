#include "xml/XMLNode.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

XMLNode parseRoot(const char* text, XMLResults* r = nullptr) { return XMLNode::parseString(text, "root", r); }

TEST(XMLParse, TopTagIsMatchedCaseInsensitivelyAndOthersAreRejected) {
    XMLResults r;
    XMLNode empty = parseRoot("<root/>", &r);
    ASSERT_FALSE(empty.isEmpty());
    EXPECT_EQ(empty.nChildNode() + empty.nText(), 0);
    EXPECT_EQ(empty.getText(), nullptr);

    EXPECT_TRUE(parseRoot("<other/>", &r).isEmpty());
    EXPECT_EQ(r.error, eXMLErrorFirstTagNotFound);

    XMLNode root = parseRoot("<?xml version=\"1.0\"?><ROOT><a>1</a></ROOT>", &r);
    ASSERT_FALSE(root.isEmpty());
    EXPECT_EQ(r.error, eXMLErrorNone);
    EXPECT_STREQ(root.getName(), "ROOT");
    EXPECT_TRUE(root.getParentNode().isEmpty());  // the document around it is not kept

    // The first top-level element of that name wins even when another one precedes it.
    root = parseRoot("<a/><root x=\"1\"/><root x=\"2\"/>");
    EXPECT_STREQ(root.getAttribute("x"), "1");
}

TEST(XMLParse, WithoutTagReturnsUnnamedDocumentWithDeclaration) {
    XMLNode doc = XMLNode::parseString("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!-- hi -->\n<root/>");
    EXPECT_EQ(doc.getName(), nullptr);
    ASSERT_EQ(doc.nChildNode(), 2);
    EXPECT_TRUE(doc.getChildNode(0).isDeclaration());
    EXPECT_STREQ(doc.getChildNode(0).getAttribute("encoding"), "utf-8");
    EXPECT_STREQ(doc.getClear(), " hi ");
    EXPECT_EQ(doc.getChildNode(1).getParentNode(), doc);
}

TEST(XMLParse, TextsAreTrimmedAndBlankRunsDropped) {
    XMLNode root = parseRoot("<root>\n\t  hello  world \r\n<a>  </a>\n  tail\t</root>");
    ASSERT_FALSE(root.isEmpty());
    ASSERT_EQ(root.nText(), 2);
    EXPECT_STREQ(root.getText(0), "hello  world");
    EXPECT_STREQ(root.getText(1), "tail");
    EXPECT_EQ(root.getChildNode("a").nText(), 0);
}

TEST(XMLParse, EntitiesAreDecodedInTextsAndAttributes) {
    XMLNode root = parseRoot("<root v=\"&quot;a&apos; &amp; b&#x41;\">&lt;x&gt; &#65;&#x62;&#255;&amp;amp;</root>");
    ASSERT_FALSE(root.isEmpty());
    EXPECT_STREQ(root.getAttribute("v"), "\"a' & bA");
    EXPECT_EQ(std::string(root.getText()), "<x> Ab\xff&amp;");
}

TEST(XMLParse, ClearSectionsAndDoctypeAreKeptVerbatimAndInOrder) {
    XMLNode root = parseRoot("<root>one<!-- c &amp; --><![CDATA[ <raw> & ]]>two<b/></root>");
    ASSERT_FALSE(root.isEmpty());
    ASSERT_EQ(root.nClear(), 2);
    EXPECT_STREQ(root.getClear(0), " c &amp; ");
    EXPECT_STREQ(root.getClear(1), " <raw> & ");
    EXPECT_EQ(root.toString(0), "<root>one<!-- c &amp; --><![CDATA[ <raw> & ]]>two<b/></root>");
    const char* doctype = "<!DOCTYPE  note [ <!ENTITY x \"y\"> ]><note/>";
    EXPECT_EQ(XMLNode::parseString(doctype).toString(0), doctype);
}

struct ErrorCase {
    const char* text;
    XMLError error;
    int line;
    int column;
};

TEST(XMLParse, ErrorsCarryCodeLineAndColumn) {
    const ErrorCase cases[] = {
        {"", eXMLErrorEmpty, 1, 1},
        {" \n\t", eXMLErrorEmpty, 1, 1},
        {"<root>\n  <a>&bogus;</a>\n</root>", eXMLErrorUnknownCharacterEntity, 2, 6},
        {"<root>\n<a v='x&#300;'/></root>", eXMLErrorCharacterCodeAbove255, 2, 8},
        {"<root>&#;</root>", eXMLErrorUnknownCharacterEntity, 1, 7},
        {"<root>a & b</root>", eXMLErrorUnknownCharacterEntity, 1, 9},
        {"<root>\n<a></b>\n</root>", eXMLErrorUnmatchedEndTag, 2, 0},
        {"<root><a>", eXMLErrorUnmatchedEndTag, 1, 0},  // truncated: no partial tree
        {"<root><!-- open</root>", eXMLErrorUnmatchedEndClearTag, 1, 0},
        {"<root>< a/></root>", eXMLErrorMissingTagName, 1, 0},
        {"<root a=1/>", eXMLErrorUnexpectedToken, 1, 0},
        {"just text", eXMLErrorNoElements, 1, 0},
    };
    for (const ErrorCase& c : cases) {
        SCOPED_TRACE(c.text);
        XMLResults r;
        EXPECT_TRUE(parseRoot(c.text, &r).isEmpty());
        EXPECT_TRUE(XMLNode::parseString(c.text).isEmpty());
        EXPECT_EQ(r.error, c.error) << XMLNode::getError(r.error);
        EXPECT_EQ(r.nLine, c.line);
        if (c.column) {
            EXPECT_EQ(r.nColumn, c.column);
        }
        EXPECT_GE(r.nColumn, 1);
    }
    XMLResults r;
    EXPECT_TRUE(XMLNode::parseString(static_cast<const char*>(nullptr), "root", &r).isEmpty());
    EXPECT_EQ(r.error, eXMLErrorEmpty);
}

TEST(XMLParse, ParseFile) {
    std::string path = ::testing::TempDir() + "velmora_xml_parse.xml";
    std::ofstream(path) << "<?xml version=\"1.0\"?>\n<root><a>1</a></root>\n";
    XMLResults r;
    EXPECT_STREQ(XMLNode::parseFile(path.c_str(), "root", &r).getChildNode("a").getText(), "1");
    std::remove(path.c_str());
    EXPECT_TRUE(XMLNode::parseFile(path.c_str(), "root", &r).isEmpty());
    EXPECT_EQ(r.error, eXMLErrorFileNotFound);
}

}  // namespace
