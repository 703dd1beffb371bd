// Parsing and printing documents.
#include "xml/XMLNode.h"

#include <gtest/gtest.h>

#include <string>

namespace {

XMLNode parseRoot(const char* text, XMLResults* r = nullptr) { return XMLNode::parseString(text, "root", r); }

TEST(XMLParse, TopTagIsMatchedCaseInsensitivelyAndOthersAreRejected) {
    XMLResults r;
    EXPECT_TRUE(parseRoot("<other/>", &r).isEmpty());
    EXPECT_EQ(r.error, eXMLErrorFirstTagNotFound);

    XMLNode root = parseRoot("<?xml version=\"1.0\"?><ROOT><a>1</a></ROOT>", &r);
    ASSERT_FALSE(root.isEmpty());
    EXPECT_EQ(r.error, eXMLErrorNone);
    EXPECT_STREQ(root.getName(), "ROOT");
    EXPECT_TRUE(root.getParentNode().isEmpty());  // the document around it is not kept

    // Without a tag: the unnamed document, its declaration first.
    XMLNode doc = XMLNode::parseString("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!-- hi -->\n<root/>");
    EXPECT_EQ(doc.getName(), nullptr);
    ASSERT_EQ(doc.nChildNode(), 2);
    EXPECT_TRUE(doc.getChildNode(0).isDeclaration());
    EXPECT_STREQ(doc.getChildNode(1).getName(), "root");
}

TEST(XMLParse, TextsAreTrimmedAndEntitiesDecoded) {
    XMLNode root = parseRoot("<root>\n\t  hello  world \r\n<a>  </a>\n  tail\t</root>");
    ASSERT_EQ(root.nText(), 2);
    EXPECT_STREQ(root.getText(0), "hello  world");
    EXPECT_STREQ(root.getText(1), "tail");
    EXPECT_EQ(root.getChildNode("a").nText(), 0);

    root = parseRoot("<root v=\"&quot;a&apos; &amp; b&#x41;\">&lt;x&gt; &#65;&#x62;&#255;&amp;amp;</root>");
    EXPECT_STREQ(root.getAttribute("v"), "\"a' & bA");
    EXPECT_EQ(std::string(root.getText()), "<x> Ab\xff&amp;");
}

TEST(XMLParse, CommentsCdataAndDoctypeAreKeptVerbatim) {
    XMLNode root = parseRoot("<root>one<!-- c &amp; --><![CDATA[ <raw> & ]]>two<b/></root>");
    EXPECT_EQ(root.toString(0), "<root>one<!-- c &amp; --><![CDATA[ <raw> & ]]>two<b/></root>");
    const char* doctype = "<!DOCTYPE  note [ <!ENTITY x \"y\"> ]><note/>";
    EXPECT_EQ(XMLNode::parseString(doctype).toString(0), doctype);
}

TEST(XMLParse, MalformedTextsGiveNoTreeAtAll) {
    for (const char* text : {"", " \n\t", "<root>\n  <a>&bogus;</a>\n</root>", "<root>\n<a v='x&#300;'/></root>",
                             "<root>&#;</root>", "<root>a & b</root>", "<root>\n<a></b>\n</root>",
                             "<root><a>" /* truncated */, "<root><!-- open</root>", "<root>< a/></root>", "<root a=1/>",
                             "just text"}) {
        XMLResults r;
        EXPECT_TRUE(parseRoot(text, &r).isEmpty()) << text;
        EXPECT_TRUE(XMLNode::parseString(text).isEmpty()) << text;
        EXPECT_NE(r.error, eXMLErrorNone) << text;
    }
}

TEST(XMLPrint, FormattedNestingEmptyElementsAttributesAndMixedContent) {
    XMLNode root = XMLNode::createXMLTopNode("root");
    root.addAttribute("a", "1");
    root.addAttribute("b", "x\"y");
    XMLNode list = root.addChild("list");
    list.addChild("item").addAttribute("id", "7");
    list.addText("note");
    list.addClear(" c ", "<!--", "-->");
    root.addChild("empty");
    EXPECT_EQ(root.toString(), "<root a=\"1\" b=\"x&quot;y\">\n\t<list>\n\t\t<item id=\"7\"/>\n\t\tnote\n"
                               "\t\t<!-- c -->\n\t</list>\n\t<empty/>\n</root>\n");
    EXPECT_EQ(root.toString(0),
              "<root a=\"1\" b=\"x&quot;y\"><list><item id=\"7\"/>note<!-- c --></list><empty/></root>");
}

TEST(XMLPrint, SpecialCharactersSurviveRoundTrip) {
    const char* nasty = "a & b < c > d \" e ' f &amp;";
    for (int format : {0, 1}) {
        SCOPED_TRACE(format);
        XMLNode root = XMLNode::createXMLTopNode("root");
        root.addChild("t").addText(nasty);
        root.addChild("u").addAttribute("v", nasty);
        std::string printed = root.toString(format);
        EXPECT_NE(printed.find("a &amp; b &lt; c &gt; d &quot; e &apos; f &amp;amp;"), std::string::npos);

        XMLResults r;
        XMLNode back = XMLNode::parseString(printed, "root", &r);
        ASSERT_EQ(r.error, eXMLErrorNone) << printed;
        EXPECT_STREQ(back.getChildNode("t").getText(), nasty);
        EXPECT_STREQ(back.getChildNode("u").getAttribute("v"), nasty);
        EXPECT_EQ(back.toString(format), printed);
    }
}

}  // namespace
