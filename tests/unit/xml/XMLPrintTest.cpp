#include "xml/XMLNode.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

XMLNode statusAnswer() {
    XMLNode root = XMLNode::createXMLTopNode("root");
    root.addChild("status").addText("0");
    root.addChild("version").addText("XUMA 1.0");
    return root;
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
    EXPECT_EQ(root.toString(),
              "<root a=\"1\" b=\"x&quot;y\">\n"
              "\t<list>\n"
              "\t\t<item id=\"7\"/>\n"
              "\t\tnote\n"
              "\t\t<!-- c -->\n"
              "\t</list>\n"
              "\t<empty/>\n"
              "</root>\n");
    EXPECT_EQ(root.toString(0),
              "<root a=\"1\" b=\"x&quot;y\"><list><item id=\"7\"/>note<!-- c --></list><empty/></root>");
}

TEST(XMLPrint, DeclarationsAndDocumentNodes) {
    XMLNode doc = XMLNode::parseString("<?xml version=\"1.0\" encoding=\"utf-8\"?><root><a/></root>");
    ASSERT_FALSE(doc.isEmpty());
    EXPECT_EQ(doc.toString(1), "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<root>\n\t<a/>\n</root>\n");
    EXPECT_EQ(doc.toString(0), "<?xml version=\"1.0\" encoding=\"utf-8\"?><root><a/></root>");
}

TEST(XMLPrint, SpecialCharactersSurviveRoundTrip) {
    const char* nasty = "a & b < c > d \" e ' f &amp;";
    for (int format : {0, 1}) {
        SCOPED_TRACE(format);
        XMLNode root = XMLNode::createXMLTopNode("root");
        root.addChild("t").addText(nasty);
        root.addChild("u").addAttribute("v", nasty);
        root.addClear("keep <this> & that");
        std::string printed = root.toString(format);
        EXPECT_NE(printed.find("a &amp; b &lt; c &gt; d &quot; e &apos; f &amp;amp;"), std::string::npos);

        XMLResults r;
        XMLNode back = XMLNode::parseString(printed, "root", &r);
        ASSERT_EQ(r.error, eXMLErrorNone) << printed;
        EXPECT_STREQ(back.getChildNode("t").getText(), nasty);
        EXPECT_STREQ(back.getChildNode("u").getAttribute("v"), nasty);
        EXPECT_STREQ(back.getClear(), "keep <this> & that");
        EXPECT_EQ(back.toString(format), printed);
    }
}

TEST(XMLPrint, ParsedDocumentReprintsIdentically) {
    const char* text =
        "<root>\n"
        "\t<cmd id=\"3\">play</cmd>\n"
        "\t<!-- in order -->\n"
        "\t<list>\n"
        "\t\t<item/>\n"
        "\t\t<item>x</item>\n"
        "\t</list>\n"
        "</root>\n";
    XMLNode root = XMLNode::parseString(text, "root");
    EXPECT_EQ(root.toString(1), text);
}

TEST(XMLPrint, WriteToFileAddsDeclarationOnlyWhenMissing) {
    std::string path = ::testing::TempDir() + "velmora_xml_write.xml";
    auto written = [&] {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    ASSERT_EQ(statusAnswer().writeToFile(path.c_str(), "ISO-8859-1", 0), eXMLErrorNone);
    EXPECT_EQ(written(), "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n" + statusAnswer().toString(0));
    ASSERT_EQ(XMLNode::parseString("<?xml version=\"1.0\"?><root/>").writeToFile(path.c_str()), eXMLErrorNone);
    EXPECT_EQ(written(), "<?xml version=\"1.0\"?>\n<root/>\n");
    std::remove(path.c_str());
    EXPECT_EQ(statusAnswer().writeToFile("/nonexistent-dir/x.xml"), eXMLErrorCannotOpenWriteFile);
}

}  // namespace
