#include "xml/Utf8.h"
#include "xml/XMLNode.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

const char* kRequest =
    "<root><command>Play</command><paramList>"
    "<player id=\"1\" kind=\"audio\">A</player><Player id=\"2\">B</Player><player id=\"3\" kind=\"video\">C</player>"
    "</paramList></root>";

TEST(XMLTree, LookupsIgnoreCaseResumeAndReadAMissingElementAsNothing) {
    // A missing element deep in a request reads as nothing, and edits of it are ignored.
    XMLNode root = XMLNode::parseString(kRequest, "root");
    XMLNode chained = root.getChildNode("paramList").getChildNode("missing").getChildNode(3).getParentNode();
    EXPECT_TRUE(chained.isEmpty());
    EXPECT_EQ(chained.getText(), nullptr);
    EXPECT_STREQ(xmltoa(chained.getAttribute("x"), "def"), "def");
    EXPECT_EQ(chained.nChildNode() + chained.nText() + chained.nAttribute(), 0);
    EXPECT_EQ(chained.toString(), "");
    EXPECT_TRUE(chained.addChild("x").isEmpty());
    chained.addText("t");
    EXPECT_EQ(root.toString(0), kRequest);

    XMLNode params = root.getChildNode("PARAMLIST");
    EXPECT_EQ(params.nChildNode("player"), 3);
    EXPECT_STREQ(params.getChildNode("PLAYER", 1).getText(), "B");
    EXPECT_TRUE(params.getChildNode("player", 3).isEmpty());
    EXPECT_STREQ(params.getChildNode("player", 0).getAttribute("ID"), "1");
    EXPECT_STREQ(params.getChildNode(0).getAttributeValue(1), "audio");

    std::string seen;
    int i = 0;
    for (XMLNode n = params.getChildNode("player", &i); !n.isEmpty(); n = params.getChildNode("player", &i))
        seen += n.getText();
    EXPECT_EQ(seen, "ABC");
    EXPECT_EQ(i, 3);
}

// The status cache hands each answer a copy of a cached list: answers sent side by side must
// share nothing with the cache or with each other.
TEST(XMLTree, DeepCopyIsIndependent) {
    XMLNode root = XMLNode::parseString("<root k=\"v\"><a>1<!--c--><b>2</b></a></root>", "root");
    XMLNode copy = root.getChildNode("a").deepCopy();
    EXPECT_TRUE(copy.getParentNode().isEmpty());
    copy.getChildNode("b").updateText("changed");
    copy.addChild("added");
    EXPECT_EQ(root.toString(0), "<root k=\"v\"><a>1<!--c--><b>2</b></a></root>");
    EXPECT_EQ(copy.toString(0), "<a>1<!--c--><b>changed</b><added/></a>");
    EXPECT_EQ(copy.getChildNode("b").getParentNode(), copy);
}

TEST(XMLTree, HandlesCopiedOnSeveralThreads) {
    XMLNode root = XMLNode::parseString(kRequest, "root");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([root] {
            for (int k = 0; k < 2000; ++k) XMLNode copy = root, again(copy);
        });
    for (auto& t : threads) t.join();
    EXPECT_STREQ(root.getChildNode("command").getText(), "Play");
}

TEST(XMLTree, DeepDocumentsDoNotRecurse) {
    const int depth = 100000;  // deep enough that a recursive walk would endanger a thread stack
    std::string text;
    for (int k = 0; k < depth; ++k) text += "<a>";
    text += "x";
    for (int k = 0; k < depth; ++k) text += "</a>";
    XMLNode doc = XMLNode::parseString(text, "a");
    ASSERT_FALSE(doc.isEmpty());
    EXPECT_EQ(doc.toString(0), text);
    EXPECT_EQ(doc.deepCopy().toString(0).size(), text.size());
}

}  // namespace

TEST(XMLText, OnlyWellFormedUtf8OfXmlCharactersPassesAndPrintingReplacesTheRest) {
    for (const char* good : {"", "plain", "L'été – 日本語 🎵", "tab\tline\nreturn\r"})
        EXPECT_TRUE(utf8::isXmlText(good)) << good;
    for (const char* bad : {"bad\xff\xfe", "\xc0\x80" "overlong", "\xed\xa0\x80 surrogate", "bell\x07",
                            "cut \xe6\x97", "\xef\xbf\xbe not a character"})
        EXPECT_FALSE(utf8::isXmlText(bad)) << bad;

    // A text stored before such checks existed prints as well-formed text.
    XMLNode root = XMLNode::createXMLTopNode("root");
    root.addChild("title").addText("bad\xff\xfe\xc0\x80name & <more>");
    const std::string printed = root.toString(0);
    EXPECT_TRUE(utf8::isXmlText(printed)) << printed;
    EXPECT_NE(printed.find("bad\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBDname &amp; &lt;more&gt;"), std::string::npos)
        << printed;
}

TEST(XMLTree, ContentWritersPrintInPlaceAndMayPrintTreesOfTheirOwn) {
    XMLNode root = XMLNode::createXMLTopNode("root");
    root.addChild("status").addText("0");
    int calls = 0;
    root.addContentWriter([&calls](std::string& out, int depth, bool formatted) {
        ++calls;
        for (const char* name : {"one", "two"}) {
            XMLNode item = XMLNode::createXMLTopNode("item");
            item.addChild("name").addText(name);
            item.appendTo(out, formatted ? 1 : 0, depth);  // a nested print
        }
    });
    root.addChild("version").addText("v");
    EXPECT_EQ(root.toString(0), "<root><status>0</status><item><name>one</name></item><item><name>two</name></item>"
                                "<version>v</version></root>");
    std::string out = "HEAD";
    root.appendTo(out, 1);
    EXPECT_EQ(out, "HEAD<root>\n\t<status>0</status>\n\t<item>\n\t\t<name>one</name>\n\t</item>\n"
                   "\t<item>\n\t\t<name>two</name>\n\t</item>\n\t<version>v</version>\n</root>\n");
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(root.nChildNode(), 2);
}
